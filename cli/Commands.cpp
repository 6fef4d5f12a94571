#include "Command.h"

std::span<const Command> commands() {
    static constexpr Command kCommands[] = {
        {"info", "Show which reader answers", setUpInfo},
        {"poll", "Follow the tags that come to the reader", setUpPoll},
        {"led", "Switch a light of the reader", setUpLed},
    };
    return kCommands;
}
