#pragma once

#include "HexBytes.h"

#include "VirtualTag.h"

#include <algorithm>
#include <string>

/// Speaks to one tag over the air, as the radio part of a reader would.
class AirReader {
  public:
    explicit AirReader(VirtualTag& tag) : mTag(tag) { tag.fieldOn(); }

    /// Wakes and selects the tag; one that is still awake takes the first request as a disturbance. @return its SAK as
    /// text, or the step that it did not answer.
    std::string select(VirtualTag::Request request = VirtualTag::Request::reqa) {
        std::uint16_t atqa = 0;
        if (!mTag.request(request, atqa) && !mTag.request(request, atqa)) return "no answer to the request";
        for (int level = 0; level < 3; ++level) {
            CascadePart part{};
            std::uint8_t sak = 0;
            if (!mTag.anticollision(level, {}, 0, part)) return "no part";
            if (!mTag.select(level, part, sak)) return "not selected";
            if (!(sak & 0x04)) return text({&sak, 1});
        }
        return "endless cascade";
    }

    /// One frame. @return "-" for silence, "A" or "4" for a nibble, else the bytes.
    std::string send(std::string_view frame) {
        const auto bytes = hex(frame);
        mTag.exchange(bytes, mAnswer);
        if (mAnswer.kind() == AirAnswer::Kind::silence) return "-";
        if (mAnswer.kind() == AirAnswer::Kind::nibble) return {"0123456789ABCDEF"[mAnswer.nibble() & 15]};
        return text(mAnswer.bytes());
    }

    bool authenticate(char key, int block, std::string_view secret = "FFFFFFFFFFFF") {
        Authentication authentication;
        authentication.withKeyB = key == 'B';
        authentication.block = static_cast<std::uint8_t>(block);
        std::ranges::copy(hex(secret), authentication.key.begin());
        std::ranges::copy(mTag.uid().first(4), authentication.uid.begin());
        return mTag.authenticate(authentication);
    }

  private:
    VirtualTag& mTag;
    AirAnswer mAnswer;
};
