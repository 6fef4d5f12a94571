#include "Command.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

std::span<const Command> commands() {
    static constexpr Command kCommands[] = {
        {"info", "Show which reader answers", setUpInfo},
        {"poll", "Follow the tags that come to the reader", setUpPoll},
        {"led", "Switch a light of the reader", setUpLed},
        {"ls", "List the tags in the field", setUpLs},
        {"read", "Show blocks of a tag", setUpRead},
        {"write", "Write blocks of a tag", setUpWrite},
        {"dump", "Copy a tag into an image file", setUpDump},
        {"restore", "Write an image file to a tag", setUpRestore},
        {"format", "Prepare a factory tag for applications", setUpFormat},
        {"unformat", "Bring a formatted tag back to the factory state", setUpUnformat},
        {"app", "Applications in the directory of a tag", setUpApp},
        {"value", "Value blocks: counters with an amount", setUpValue},
        {"access", "Who may do what with the blocks of a tag", setUpAccess},
        {"key", "Keys of a tag", setUpKey},
        {"apdu", "Talk with a smart card", setUpApdu},
        {"relay", "Send commands to the chip of the reader", setUpRelay},
    };
    return kCommands;
}

Work addCommands(CLI::App& app, std::span<const Command> commands, const char* heading) {
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    const auto works = std::make_shared<std::vector<std::pair<CLI::App*, Work>>>();
    for (const Command& command : commands) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->group(heading);
        sub->fallthrough();
        sub->footer("");  // The one of the family is not its members'.
        works->emplace_back(sub, command.setUp(*sub));
    }
    return [works](Session& session) {
        return std::ranges::find_if(*works, [](const auto& each) { return each.first->parsed(); })->second(session);
    };
}
