#pragma once

#include "VirtualTag.h"

#include <memory>
#include <string>

/// Tags from files and back.
///
/// Raw images (.mfd, .bin, .dump or any name): 320, 1024 or 4096 bytes of a Classic, 64 of an Ultralight. Text files
/// that end in ".card" describe what an image cannot say; the manual page of qvlreadersim documents them. A text
/// "new:KIND" or "new:KIND:UID" makes a tag as delivered: KIND is mini, 1k, 4k, ultralight or card.

struct MadeTag {
    std::shared_ptr<VirtualTag> tag;  ///< Null if it could not be made.
    std::string message;              ///< Why not, and what would be right; or a warning about a tag that was made.
};
MadeTag makeTag(const std::string& pathOrSpec, const TagQuirks& quirks = {});

/// Writes the tag's memory, byte for byte. @return empty or what went wrong.
std::string saveTag(VirtualTag& tag, const std::string& path);

/// The file into which a tag that was made from `pathOrSpec` is saved by default: itself, or the image or NDEF
/// file that a .card file names; empty if there is none.
std::string imagePathOf(const std::string& pathOrSpec);
