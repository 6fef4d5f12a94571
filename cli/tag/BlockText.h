#pragma once

#include "OpResultCode.h"
#include "Session.h"

#include <cstdint>
#include <span>
#include <string>

/// Shows what an operation has read, a block a line, or puts it into `file` unless that is empty; then says what went
/// wrong, if anything. After partial success only blocks that were read are shown, and no file is written. There is a
/// record for each block of `data`.
Outcome tellData(Session& session, int status, std::span<const std::uint8_t> data,
                 std::span<const OpResultCode> records, const std::string& file);
