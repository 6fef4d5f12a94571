#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// What an answer to select (ISO/IEC 14443-4) says of the card.
struct AtsText {
    unsigned frameSize = 0;  ///< The longest block that the card takes.
    bool takesCid = true;
    bool takesNad = false;
    std::vector<std::uint8_t> historical;
};

/// Decodes an ATS that begins with its length; none for one that is not as long as it says.
std::optional<AtsText> atsText(std::span<const std::uint8_t> ats);
