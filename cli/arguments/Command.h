#pragma once

#include "Options.h"
#include "Outcome.h"
#include "Session.h"

#include <functional>
#include <span>

/// What a sub-command does in an open session, once its arguments are read.
using Work = std::function<Outcome(Session&)>;

/// A sub-command. `setUp` adds its arguments and further help to `options` and gives its work, which owns what the
/// arguments are read into. Whatever can be seen to be wrong with the arguments alone, it complains about while the
/// line is parsed (std::invalid_argument): before any reader is touched. The work may throw qvl::Error.
struct Command {
    const char* name;
    const char* summary;
    Work (*setUp)(Options& options);
};

/// Adds sub-commands to `options`, of which a line has to name one, under this heading of the help.
/// @return the work of whichever was named.
Work addCommands(Options& options, std::span<const Command> commands, const char* heading = "Commands");

/// All of them, in the order of the help.
std::span<const Command> commands();

// One file each, families with a few.
Work setUpInfo(Options& options);
Work setUpPoll(Options& options);
Work setUpLed(Options& options);
Work setUpLs(Options& options);
Work setUpRead(Options& options);
Work setUpWrite(Options& options);
Work setUpDump(Options& options);
Work setUpRestore(Options& options);
Work setUpFormat(Options& options);
Work setUpUnformat(Options& options);
Work setUpApp(Options& options);
Work setUpValue(Options& options);
Work setUpAccess(Options& options);
Work setUpKey(Options& options);
Work setUpApdu(Options& options);
Work setUpRelay(Options& options);
