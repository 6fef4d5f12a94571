// A stream from outside, read by a program that also comes from outside: the first half of the input says what is asked
// for, the second half is the stream.

#include "QVLParamCollection.h"
#include "ServiceStatus.h"
#include "TagUID.h"

#include <cstdlib>
#include <memory>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

void step(std::uint8_t what, QVLParamCollection& stream) {
    std::uint16_t shortValue = 0;
    std::uint32_t longValue = 0;
    std::uint8_t byteValue = 0;
    std::uint32_t length = 0;
    char* text = nullptr;
    std::uint8_t* bytes = nullptr;
    TagUID tag;
    switch (what % 12) {
    case 0:
        stream.getShort(shortValue);
        break;
    case 1:
        stream.getLong(longValue);
        break;
    case 2:
        stream.getByte(byteValue);
        break;
    case 3:
        stream.getString(text);
        break;
    case 4:
        stream.getBytes(length, bytes);
        require((bytes != nullptr) == (length > 0));
        break;
    case 5:
        stream.getParameter(tag);
        require((tag.getUid() != nullptr) == (tag.getUidLen() > 0));
        stream.addParameter(tag);
        break;
    case 6:
        stream.peekType(byteValue);
        stream.addByte(byteValue);
        break;
    case 7:
        stream.rewind();
        break;
    case 8:
        stream.addBytes(stream.getSize() / 2, stream.getData());
        break;
    case 9: {
        QVLParamCollection copy(stream);
        copy.addShort(1);
        stream.addLong(2);
        stream = what & 0x80 ? copy : stream;
        break;
    }
    case 10:
        stream.seekEnd();
        break;
    default:
        stream.setData(stream.getSize() / 2, stream.getData());
        break;
    }
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
