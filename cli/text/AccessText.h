#pragma once

#include "ReaderImpl.h"

#include <array>
#include <cstdint>
#include <string>

/// What the access conditions of Mifare Classic mean, after the data sheets MF1S50yyX and MF1S70yyX.

/// Which keys of the sector allow something.
enum Who : unsigned { nobody = 0, withKeyA = 1, withKeyB = 2, withEither = 3 };

/// One condition of a data block. `word` and `bits` (C1 C2 C3) are how users name it.
struct DataRule {
    DataAccControl code;
    const char *word, *bits;
    Who read, write, increment, decrement;
};

/// One condition of a trailer. Key A is never read.
struct TrailerRule {
    DataAccControl code;
    const char* bits;
    Who writeKeyA, readAccess, writeAccess, readKeyB, writeKeyB;

    /// A key B that can be read is data and opens nothing.
    bool keyBIsData() const { return readKeyB != nobody; }
    /// Who of those a rule names can do it in a sector with this trailer.
    Who inEffect(Who named) const { return keyBIsData() ? static_cast<Who>(named & withKeyA) : named; }
    /// Who may write all of the trailer.
    Who writeAll() const { return static_cast<Who>(writeKeyA & writeAccess & writeKeyB); }
};

/// `code` is of the kind that the name says.
const DataRule& dataRule(DataAccControl code);
const TrailerRule& trailerRule(DataAccControl code);

inline bool allows(Who who, AuthKeyMode key) { return (who & (key == AuthKeyA ? withKeyA : withKeyB)) != 0; }
/// "A or B", "A", "B", "nobody".
const char* whoText(Who who);

/// A condition by its word or its bits. @throws std::invalid_argument with all that there are.
DataAccControl dataConditionFromText(const std::string& text);

/// Bytes 6 to 8 of a trailer from the conditions of groups 0 to 2 and of the trailer.
std::array<std::uint8_t, 3> accessBytes(const std::array<DataAccControl, 4>& conditions);
