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
/// arguments are read into.
struct Command {
    const char* name;
    const char* summary;
    Work (*setUp)(CLI::App& app);
};

/// All of them, in the order of the help.
std::span<const Command> commands();

// One file each.
Work setUpInfo(CLI::App& app);
Work setUpPoll(CLI::App& app);
Work setUpLed(CLI::App& app);
