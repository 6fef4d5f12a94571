#pragma once

#include "HexBytes.h"

#include "Rc4.h"
#include "VirtualTamaDevice.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <utility>

/// A host that frames commands by hand and tells each frame of the reader as text.
class TestHost {
  public:
    explicit TestHost(std::shared_ptr<VirtualTamaReader> reader) : device(std::move(reader), 0) {
        device.OpenInterface("", 0, 0);
    }

    static std::vector<std::uint8_t> frame(std::vector<std::uint8_t> command, Rc4* cipher = nullptr) {
        const auto length = static_cast<std::uint8_t>(command.size() + 1);
        std::uint8_t sum = 0xD4;
        for (std::uint8_t byte : command)
            sum = static_cast<std::uint8_t>(sum + byte);
        if (cipher) cipher->crypt(std::span(command).subspan(1));
        std::vector<std::uint8_t> out(command.size() + 8);
        out[2] = 0xFF, out[3] = length, out[4] = static_cast<std::uint8_t>(-length), out[5] = 0xD4;
        std::copy(command.begin(), command.end(), out.begin() + 6);
        out[out.size() - 2] = static_cast<std::uint8_t>(-sum);
        return out;
    }
    /// Takes a frame of the reader apart. @return "ACK", "NACK", "ERROR", code and data as text, or "damaged".
    static std::string told(std::vector<std::uint8_t> bytes, Rc4* cipher = nullptr) {
        const std::string raw = text(bytes);
        if (raw == "00 00 FF 00 FF 00") return "ACK";
        if (raw == "00 00 FF FF 00 00") return "NACK";
        if (raw == "00 00 FF 01 FF 7F 81 00") return "ERROR";
        if (bytes.size() < 9 || bytes.size() != bytes[3] + 7u || std::uint8_t(bytes[3] + bytes[4]) != 0)
            return "damaged";
        const std::span<std::uint8_t> body(bytes.data() + 5, bytes.size() - 6);
        if (cipher) cipher->crypt(body.subspan(2, body.size() - 3));
        const auto sum = std::accumulate(body.begin(), body.end(), 0u);
        if (raw.substr(0, 8) != "00 00 FF" || body[0] != 0xD5 || sum % 256 != 0 || bytes.back() != 0) return "damaged";
        return text(body.subspan(1, body.size() - 2));
    }

    void key(std::span<const std::uint8_t> bytes) { cipher.emplace().setKey(bytes); }
    Rc4* cipherInUse() { return cipher ? &*cipher : nullptr; }
    std::int32_t write(std::vector<std::uint8_t> bytes) {
        std::uint32_t count = 0;
        return device.WriteBytesUnblocked(bytes.data(), static_cast<int>(bytes.size()), &count, 15000);
    }
    std::string send(std::string_view command) {
        return write(frame(hex(command), cipherInUse())) == kDeviceFailed ? "gone" : "sent";
    }
    /// The next frame as text; "silence" for a time-out, "gone" for a reader that went away.
    std::string read() {
        std::array<std::uint8_t, 1024> buffer;
        std::uint32_t count = 0;
        const std::int32_t status = device.ReadBytesUnBlocked(buffer.data(), 1024, &count, 15000);
        if (status == kDeviceTimedOut) return "silence";
        if (status != kDeviceOk) return "gone";
        if (count > buffer.size()) return std::to_string(count) + " bytes";
        return told({buffer.data(), buffer.data() + count}, cipherInUse());
    }
    /// Sends a command and reads two frames. @return the reply if an ACK came before it, else what came.
    std::string operator()(std::string_view command) {
        if (send(command) == "gone") return "gone";
        std::string first = read();
        return first == "ACK" ? read() : first;
    }

    VirtualTamaDevice device;
    std::optional<Rc4> cipher;
};
