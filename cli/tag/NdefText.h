#pragma once

#include "Output.h"
#include "qvl/Ndef.h"

/// A record for people and as an object: the whole URI, the text with its language, of everything else the type and
/// the bytes.
void tellNdefRecord(Output& output, std::size_t number, const qvl::NdefRecord& record);
