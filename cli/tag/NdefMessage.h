#pragma once

#include "Output.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/// A record of an NDEF message (NFC Data Exchange Format, NFC Forum), its chunks joined.
struct NdefRecord {
    std::uint8_t typeNameFormat = 0;  ///< 0 to 7.
    std::vector<std::uint8_t> type, id, payload;
};

/// Takes a message to pieces. @throws std::invalid_argument that says where it is not sound.
std::vector<NdefRecord> ndefRecords(std::span<const std::uint8_t> message);

/// A record for people and as an object: the whole URI, the text with its language, of everything else the type and
/// the bytes.
void tellNdefRecord(Output& output, std::size_t number, const NdefRecord& record);
