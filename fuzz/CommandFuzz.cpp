// The command door on the whole stack: any stream under any command, with cards in the field. The first byte chooses
// the command and which card's UID goes in front of the rest, if any; the rest is the stream.

#include "Clock.h"
#include "QVLParamCollection.h"
#include "ReaderImpl.h"
#include "SmartCard.h"
#include "TamaDeviceFactory.h"
#include "VirtualTamaDevice.h"
#include "VirtualTamaReader.h"

#include <cstdlib>
#include <memory>
#include <vector>

namespace {

constexpr std::uint8_t kUids[][4] = {{0x08, 1, 2, 3}, {0x08, 4, 5, 6}};

struct SwiftClock : platform::Clock {
    SwiftClock() { replace(this); }
    ~SwiftClock() override { replace(nullptr); }
    std::uint64_t nowMs() override { return mNow; }
    void pauseMs(std::uint32_t ms) override { mNow += ms; }
    bool waitFor(platform::ManualResetEvent&, std::uint32_t ms) override {
        mNow += ms;
        return false;
    }
    std::uint64_t mNow = 1;
};

struct Machine {
    Machine() {
        for (const auto& uid : kUids)
            reader->field().place(
                std::make_shared<SmartCard>(uid, std::vector<std::uint8_t>{0x75, 0x77, 0x81, 0x02, 0x80}));
        setTamaDeviceFactory([this](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(reader); });
        adaptor.reset(createAdaptorInstance(nullptr));
        adaptor->setTagPromptFlag(false);
        if (!adaptor->initReader()) std::abort();
    }
    ~Machine() {
        adaptor.reset();
        setTamaDeviceFactory({});
    }

    SwiftClock clock;
    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    std::unique_ptr<ReaderImpl> adaptor;
};

/// What came out must be there to be read.
void readAll(QVLParamCollection& out) {
    volatile std::uint8_t sum = 0;
    for (std::uint32_t i = 0; i < out.getSize(); ++i)
        sum = static_cast<std::uint8_t>(sum + out.getData()[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Machine machine;
    if (size == 0) return 0;
    const int id = 39 + (data[0] & 0x0F);
    QVLParamCollection known;
    if (const int which = data[0] >> 4 & 3; which < 2) {
        TagUID tag(kUids[which], 4, 0);
        known.addParameter(tag);
    }
    std::vector<std::uint8_t> stream(known.getData(), known.getData() + known.getSize());
    stream.insert(stream.end(), data + 1, data + size);
    QVLParamCollection in;
    in.setData(static_cast<std::uint32_t>(stream.size()), stream.data());
    QVLParamCollection* out = nullptr;
    machine.adaptor->runCommand(id, in, out);
    if (out != nullptr) readAll(*out);
    machine.adaptor->freeMemory(out);
    return 0;
}
