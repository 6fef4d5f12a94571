// The command door on the whole stack: any stream under any command, with cards in the field. The first byte chooses
// the command and which card's UID goes in front of the rest, if any; the rest is the stream.

#include "Machine.h"
#include "SmartCard.h"

namespace {

constexpr std::uint8_t kUids[][4] = {{0x08, 1, 2, 3}, {0x08, 4, 5, 6}};

/// With the cards in its field.
struct CardMachine : Machine {
    CardMachine() {
        for (const auto& uid : kUids)
            reader->field().place(std::make_shared<SmartCard>(uid, Bytes{0x75, 0x77, 0x81, 0x02, 0x80}));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static CardMachine machine;
    if (size == 0) return 0;
    const int id = 39 + (data[0] & 0x0F);
    QVLParamCollection known;
    if (const int which = data[0] >> 4 & 3; which < 2) {
        TagUID tag(kUids[which], 4, 0);
        known.addParameter(tag);
    }
    Bytes stream(known.getData(), known.getData() + known.getSize());
    stream.insert(stream.end(), data + 1, data + size);
    QVLParamCollection in;
    in.setData(static_cast<std::uint32_t>(stream.size()), stream.data());
    QVLParamCollection* out = nullptr;
    machine.adaptor->runCommand(id, in, out);
    if (out != nullptr) touch(out->getData(), out->getSize());
    machine.adaptor->freeMemory(out);
    return 0;
}
