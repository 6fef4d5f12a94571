#include "Command.h"

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
