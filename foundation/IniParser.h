#pragma once

#include "IniManager.h"

#include <string_view>
#include <vector>

/// Text of a settings file into a tree (IniManager.h has the format). Pure: no file, no output.

constexpr std::size_t kIniRootBuckets = 37;
constexpr std::size_t kIniSectionBuckets = 29;

/// A section costs memory, however short its line. Files of use have a handful.
constexpr std::size_t kMostSectionLines = 8192;

/// True if not more lines than that open or close sections.
bool hasBearableSections(std::string_view text);

/// Adds what `text` holds to `root`. Needs no stack for nested sections and takes time in proportion to the text.
/// @return the line number of each closing line whose name is not that of the section it closes, in their order
std::vector<int> parseIni(std::string_view text, IniTable& root);
