#pragma once

#include "Options.h"

#include <cstdint>
#include <string>
#include <vector>

inline constexpr int kLastBlock = 255;

/// Bytes for a tag, given in one of three ways.
struct DataArguments {
    std::vector<std::uint8_t> bytes;
};

/// HEX in its place, --text and --file, exactly one of which a line has to give. Complains while the line is parsed.
void addDataOptions(Options& options, DataArguments& data);

/// A number of blocks, or "all". @throws std::invalid_argument.
int blockCountFromText(const std::string& text);
