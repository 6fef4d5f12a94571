// "relay": commands to the reader's chip itself, past all that the library knows of it.

#include "ApduText.h"
#include "Command.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = qvl::Bytes;

constexpr std::uint8_t kGetFirmwareVersion = 0x02;

struct RelayArguments {
    std::vector<std::string> words;
    std::vector<Bytes> commands;
};

/// The version in a reply to GetFirmwareVersion: code, version, revision; newer chips put their kind before these and
/// what they support after it.
std::optional<std::string> firmwareOf(const Bytes& command, const Bytes& reply) {
    constexpr std::size_t kShortReply = 3, kLongReply = 5;
    if (command != Bytes{kGetFirmwareVersion} || reply.empty() || reply[0] != kGetFirmwareVersion + 1)
        return std::nullopt;
    if (reply.size() == kShortReply) return std::to_string(reply[1]) + "." + std::to_string(reply[2]);
    if (reply.size() == kLongReply)
        return std::to_string(reply[2]) + "." + std::to_string(reply[3]) + ", PN5" +
               hexDigits(std::span(reply).subspan(1, 1));
    return std::nullopt;
}

Outcome relayAll(Session& session, const std::vector<Bytes>& commands) {
    for (const Bytes& command : commands) {
        session.goOn();
        const Bytes reply = session.reader().relay(command, session.limit());
        Json object{{"command", hexDigits(command)}, {"reply", hexDigits(reply)}};
        std::string text = dumpRows("> ", command) + "\n" + (reply.empty() ? "< (nothing)" : dumpRows("< ", reply));
        if (const auto firmware = firmwareOf(command, reply)) {
            object.add("firmware", *firmware);
            text += "\nFirmware " + *firmware;
        }
        session.output().put(object, text);
    }
    return Outcome::done;
}

}  // namespace

Work setUpRelay(Options& options) {
    const auto arguments = std::make_shared<RelayArguments>();
    options
        .value("HEX", arguments->words,
               "Commands, each one argument: code and parameters in hexadecimal,\n"
               "with blanks and colons anywhere")
        .required()
        .type("...");
    options.footer("The reply is shown from its code on. What is changed in the reader this way, the\n"
                   "library does not know of. An MF RC500 has no relay, which is status 3139.\n\n"
                   "Example: qvltag relay 02          the firmware version of the reader's chip");
    options.whenRead([arguments] {
        for (const std::string& each : arguments->words)
            try {
                arguments->commands.push_back(commandFromText(each, true));
            } catch (const std::invalid_argument& wrong) {
                throw std::invalid_argument("command " + std::to_string(arguments->commands.size() + 1) + ": " +
                                            wrong.what());
            }
    });
    return [arguments](Session& session) { return relayAll(session, arguments->commands); };
}
