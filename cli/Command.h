#pragma once

#include "Outcome.h"
#include "Session.h"

#include <functional>
#include <span>

namespace CLI {
class App;
}

/// What a sub-command does in an open session, once its arguments are read.
using Work = std::function<Outcome(Session&)>;

/// A sub-command. `setUp` adds its arguments and further help to `app` and gives its work, which owns what the
/// arguments are read into. Whatever can be seen to be wrong with the arguments alone, it complains about while the
/// line is parsed (CLI::ParseError): before any reader is touched.
struct Command {
    const char* name;
    const char* summary;
    Work (*setUp)(CLI::App& app);
};

/// Adds sub-commands to `app`, of which a line has to name one, under this heading of the help.
/// @return the work of whichever was named.
Work addCommands(CLI::App& app, std::span<const Command> commands, const char* heading = "Commands");

/// All of them, in the order of the help.
std::span<const Command> commands();

// One file each, families with a few.
Work setUpInfo(CLI::App& app);
Work setUpPoll(CLI::App& app);
Work setUpLed(CLI::App& app);
Work setUpLs(CLI::App& app);
Work setUpRead(CLI::App& app);
Work setUpWrite(CLI::App& app);
Work setUpDump(CLI::App& app);
Work setUpRestore(CLI::App& app);
Work setUpFormat(CLI::App& app);
Work setUpUnformat(CLI::App& app);
Work setUpApp(CLI::App& app);
Work setUpValue(CLI::App& app);
Work setUpAccess(CLI::App& app);
Work setUpKey(CLI::App& app);
Work setUpApdu(CLI::App& app);
Work setUpRelay(CLI::App& app);
