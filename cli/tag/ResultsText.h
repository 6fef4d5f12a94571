#pragma once

#include "Session.h"

#include <string>
#include <string_view>

/// Complains after partial success: a table of the results, `unit` being what they number ("block", "sector"), and that
/// only a part was done. If all succeeded it says nothing and gives `done`.
Outcome tellResults(Session& session, const qvl::Results& results, const char* unit, const std::string& where = {});

/// Shows what was read, a block a line, or puts it into `file` unless that is empty; then says what went wrong, if
/// anything. After partial success only blocks that were read are shown, and no file is written.
Outcome tellBlocks(Session& session, const qvl::Blocks& blocks, const std::string& file);

/// Says which sectors were changed, `what` being what they have now, or what went wrong.
Outcome tellSectors(Session& session, const qvl::Results& results, std::string_view what);
