// A stream from outside, read by a program that also comes from outside: the first half of the input says what is asked
// for, the second half is the stream.

#include "Fuzz.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"
#include "TagUID.h"

namespace {

void step(std::uint8_t what, QVLParamCollection& stream) {
    std::uint16_t shortValue = 0;
    std::uint32_t longValue = 0;
    std::uint8_t byteValue = 0;
    std::uint32_t length = 0;
    char* text = nullptr;
    std::uint8_t* bytes = nullptr;
    TagUID tag;
    const std::function<void()> operations[] = {
        [&] { stream.getShort(shortValue); },
        [&] { stream.getLong(longValue); },
        [&] { stream.getByte(byteValue); },
        [&] { stream.getString(text); },
        [&] {
            stream.getBytes(length, bytes);
            require((bytes != nullptr) == (length > 0));
        },
        [&] {
            stream.getParameter(tag);
            require((tag.getUid() != nullptr) == (tag.getUidLen() > 0));
            stream.addParameter(tag);
        },
        [&] {
            stream.peekType(byteValue);
            stream.addByte(byteValue);
        },
        [&] { stream.rewind(); },
        [&] { stream.addBytes(stream.getSize() / 2, stream.getData()); },
        [&] {
            QVLParamCollection copy(stream);
            copy.addShort(1);
            stream.addLong(2);
            stream = what & 0x80 ? copy : stream;
        },
        [&] { stream.seekEnd(); },
        [&] { stream.setData(stream.getSize() / 2, stream.getData()); },
    };
    operations[what % std::size(operations)]();
    delete[] text;
    delete[] bytes;
    require(stream.getSize() <= stream.getCapacity());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::size_t steps = size / 2;
    QVLParamCollection stream;
    require(stream.setData(static_cast<std::uint32_t>(size - steps), data + steps) == kMemoryOk);
    for (std::size_t i = 0; i < steps && stream.getSize() < 1'000'000; ++i)
        step(data[i], stream);
    return 0;
}
