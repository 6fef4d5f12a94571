#pragma once

#include "Bytes.h"
#include "Error.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>

namespace qvl {

/// The UID of a tag or card (ISO/IEC 14443-3): up to 10 bytes, or none at all.
class Uid {
  public:
    static constexpr std::size_t kMostBytes = 10;

    Uid() = default;
    /// @throws Error (badArgument) for more than 10 bytes.
    explicit Uid(ByteView bytes) : mSize(bytes.size()) {
        if (bytes.size() > kMostBytes) throw Error(Reason::badArgument, "a UID has at most 10 bytes");
        std::ranges::copy(bytes, mBytes.begin());
    }
    /// From hexadecimal digits. @throws Error (badArgument) for a text that is no UID.
    static Uid parse(std::string_view text) {
        const auto bytes = fromHex(text);
        if (!bytes || bytes->empty() || bytes->size() > kMostBytes)
            throw Error(Reason::badArgument, "a UID is up to 10 bytes, two hexadecimal digits each");
        return Uid(*bytes);
    }

    ByteView bytes() const { return {mBytes.data(), mSize}; }
    bool empty() const { return mSize == 0; }
    std::string text() const { return toHex(bytes()); }

    friend bool operator==(const Uid&, const Uid&) = default;
    friend auto operator<=>(const Uid&, const Uid&) = default;

  private:
    std::array<std::uint8_t, kMostBytes> mBytes{};
    std::size_t mSize = 0;
};

}  // namespace qvl
