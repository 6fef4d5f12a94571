// "relay": commands to the reader's chip itself, past all that the library knows of it.

#include "ApduText.h"
#include "Command.h"
#include "FromLibrary.h"
#include "ServiceStatus.h"
#include "Text.h"

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kNfcRelay = 46;
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

int relay(ReaderImpl& adaptor, const Bytes& command, Bytes& reply) {
    QVLParamCollection in;
    if (const int status = in.addBytes(static_cast<std::uint32_t>(command.size()), command.data()); status != kMemoryOk)
        return status;
    in.rewind();
    FromLibrary<QVLParamCollection> out(adaptor);
    if (const int status = adaptor.runCommand(kNfcRelay, in, out.out()); status != kOk) return status;
    out.get()->rewind();
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    const int status = out.get()->getBytes(length, data);
    const std::unique_ptr<std::uint8_t[]> owner(data);
    if (status != kMemoryOk) return status;
    reply.assign(data, data + (data ? length : 0));
    return kOk;
}

Outcome relayAll(Session& session, const std::vector<Bytes>& commands) {
    session.mutePrompt(true);  // Nothing here waits for a tag.
    for (const Bytes& command : commands) {
        if (session.interrupt().requested()) return session.fail(kCancelled);
        Bytes reply;
        if (const int status = relay(session.adaptor(), command, reply); status != kOk)
            return session.fail(status, "reader command " + hexDigits(command));
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
