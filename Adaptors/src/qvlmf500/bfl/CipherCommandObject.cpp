#include "CipherCommandObject.h"

#include <algorithm>
#include <array>

void CipherCommandObject::encryptCommand() {
    const std::uint32_t length = GetCommandBufferLength();
    if (!mCipher.hasKey() || length == 0) return;
    std::array<std::uint8_t, kBufferSize> bytes;
    const WipedAtEnd wiped(bytes.data(), length);
    std::copy_n(GetCommandBuffer(), length, bytes.data());
    mCipher.crypt(bytes.data(), static_cast<int>(length));
    const std::uint8_t code = GetCommand();
    ResetBuffers();
    SetCommand(code);
    for (std::uint32_t i = 0; i < length; ++i)
        AddParam(bytes[i]);
}

void CipherCommandObject::decryptResponse() {
    const std::uint32_t length = GetDataBufferLength();
    if (!mCipher.hasKey() || length == 0) return;
    std::array<std::uint8_t, kBufferSize> bytes;
    const WipedAtEnd wiped(bytes.data(), length);
    std::copy_n(GetDataBuffer(), length, bytes.data());
    mCipher.crypt(bytes.data(), static_cast<int>(length));
    const std::uint8_t code = GetCommand();
    ResetBuffers();
    SetCommand(code);
    SetDataBuffer(bytes.data(), length);
}
