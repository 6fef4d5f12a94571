#include "ValueBlock.h"

#include "ByteHelpers.h"

#include <algorithm>

void encodeValueBlock(std::int32_t value, std::uint8_t address, std::uint8_t* block) {
    valueToBytes(value, block);
    valueToBytes(~value, block + 4);
    valueToBytes(value, block + 8);
    const auto inverted = static_cast<std::uint8_t>(~address);
    block[12] = block[14] = address;
    block[13] = block[15] = inverted;
}

bool isSoundValueBlock(const std::uint8_t* block) {
    std::uint8_t expected[16];
    encodeValueBlock(decodeValue(block), 0, expected);
    return std::equal(block, block + 12, expected);
}
