// "apdu": commands to a smart card, from the line, a script, a pipe or a keyboard, and what the card answers.

#include "ApduExchange.h"
#include "ApduText.h"
#include "AtsText.h"
#include "CardSession.h"
#include "Command.h"
#include "InputLines.h"
#include "NdefFile.h"
#include "NdefMessage.h"
#include "QvlTcl.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "Terminal.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = CardSession::Bytes;

constexpr int kHighestNad = 0xFF;
constexpr double kShortestWaitSeconds = 0.001, kLongestWaitSeconds = 86'400;
constexpr std::size_t kLongestLine = 4 * kLongestApdu;

struct ApduArguments {
    TagAccess access;
    std::vector<std::string> words;
    std::string script;
    std::optional<std::vector<Bytes>> commands;  // None for those of standard input.
    CardSession::Options options;
    std::optional<double> timeoutSeconds;
    int nad = 0;
    bool follow = false;
    bool stopOnError = false;
    bool ndef = false;
};

void tellCard(Output& output, const CardSession::Card& card) {
    Json object{{"card", hexDigits(card.uid)}};
    std::vector<std::pair<std::string, std::string>> rows{{"Card", hexDigits(card.uid)}};
    if (card.cid) {
        object.add("cid", *card.cid);
        object.add("ats", hexDigits(card.ats));
        rows.emplace_back("CID", std::to_string(*card.cid));
        rows.emplace_back("ATS", hexDigits(card.ats));
        if (const auto ats = atsText(card.ats)) {
            object.add("frameSize", ats->frameSize);
            object.add("takesCid", ats->takesCid);
            object.add("takesNad", ats->takesNad);
            object.add("historical", hexDigits(ats->historical));
            rows.back().second += "  (frames of " + std::to_string(ats->frameSize) + " bytes, " +
                                  (ats->takesCid ? "CID" : "no CID") + ", " + (ats->takesNad ? "NAD" : "no NAD") + ")";
            if (!ats->historical.empty())
                rows.emplace_back("Historical", hexDigits(ats->historical) + "  " + printable(ats->historical));
        }
    } else {
        rows.back().second += "  (another card answered first; the first command wakes this one)";
    }
    output.put(object, alignedRows(rows));
}

/// Sends commands one after the other, tells of each, and keeps in mind how it went.
class Dialogue {
  public:
    Dialogue(Session& session, CardSession& card, const ApduArguments& arguments)
        : mSession(session), mCard(card), mArguments(arguments) {
        showPromptIf(arguments.options.retry || !card.card().cid);
    }

    Outcome sendAll(const std::vector<Bytes>& commands);
    Outcome sendInput();

  private:
    /// @return whether a script may go on.
    bool send(const Bytes& command);
    void tell(const Bytes& command, const ApduExchange& exchange);
    /// On a terminal the prompt would flash up with each command. Only a card that has to be woken may need it.
    void showPromptIf(bool mayWait) {
        if (terminal::isThere()) mSession.mutePrompt(!mayWait);
    }
    /// @return whether the end was requested, which is told.
    bool isCancelled();
    bool goesOn() { return mSession.output().isOpen() && !isCancelled(); }

    Session& mSession;
    CardSession& mCard;
    const ApduArguments& mArguments;
    std::size_t mNumber = 0;
    Outcome mOutcome = Outcome::done;
};

bool Dialogue::isCancelled() {
    if (!mSession.interrupt().requested()) return false;
    mOutcome =
        mSession.output().error({Outcome::failed, "cancelled", "the end was requested before all was sent", "", 0});
    return true;
}

void Dialogue::tell(const Bytes& command, const ApduExchange& exchange) {
    Json object{{"command", hexDigits(command)}};
    std::string text = dumpRows("> ", command);
    std::vector<std::string> followUps;
    for (const Bytes& each : exchange.followUps) {
        followUps.push_back(hexDigits(each));
        text += "\n" + dumpRows("> ", each);
    }
    if (!followUps.empty()) object.add("followUps", followUps);
    Bytes data = exchange.data;
    if (mArguments.options.raw && exchange.statusWord)
        data.insert(data.end(), {sw1(*exchange.statusWord), sw2(*exchange.statusWord)});
    object.add("data", hexDigits(data));
    if (!data.empty()) text += "\n" + dumpRows("< ", data);
    if (exchange.lost > 0) object.add("lost", exchange.lost);
    if (exchange.statusWord && !mArguments.options.raw) {
        const std::uint8_t word[] = {sw1(*exchange.statusWord), sw2(*exchange.statusWord)};
        const std::string meaning = statusWordText(*exchange.statusWord);
        object.add("sw", hexDigits(word));
        object.add("meaning", meaning);
        object.add("fine", isFine(*exchange.statusWord));
        text += "\n< " + hexDigits(word) + "  " + meaning;
    } else if (data.empty()) {
        text += "\n< (nothing)";
    }
    mSession.output().put(object, text);
}

bool Dialogue::send(const Bytes& command) {
    ++mNumber;
    const ApduExchange exchange = exchangeApdu(mCard, command, mArguments.follow);
    const bool hasRest = exchange.status == kTclRestPending;
    showPromptIf(mArguments.options.retry || (exchange.status != kOk && !hasRest));
    if (exchange.status == kOk || !exchange.data.empty()) tell(command, exchange);
    if (exchange.status != kOk) {
        mOutcome = mSession.fail(exchange.status, "command " + std::to_string(mNumber));
        return hasRest && !mArguments.stopOnError;
    }
    if (mArguments.options.raw || (exchange.statusWord && isFine(*exchange.statusWord))) return true;
    mOutcome = Outcome::failed;
    return !mArguments.stopOnError;
}

Outcome Dialogue::sendAll(const std::vector<Bytes>& commands) {
    for (const Bytes& each : commands) {
        if (!goesOn()) break;
        if (send(each)) continue;
        if (const std::size_t rest = commands.size() - mNumber; rest > 0)
            mSession.output().note(counted(rest, "more command") + " not sent");
        break;
    }
    return mOutcome;
}

Outcome Dialogue::sendInput() {
    const auto lines = openInputLines(mSession.interrupt(), "apdu> ", kLongestLine);
    const bool isInteractive = lines->isInteractive();
    if (isInteractive) terminal::say("One command a line, in hexadecimal. Ctrl-D ends.\n");
    std::size_t number = 0;
    while (const auto line = lines->next()) {
        ++number;
        if (isInteractive && (*line == "quit" || *line == "exit")) return mOutcome;
        if (!goesOn()) return mOutcome;
        try {
            const auto command = commandFromLine(*line, mArguments.options.raw);
            if (command && !send(*command) && !isInteractive) return mOutcome;
        } catch (const std::invalid_argument& wrong) {
            const Outcome refused = mSession.output().error(
                {Outcome::usage, "usage", (isInteractive ? "" : "line " + std::to_string(number) + ": ") + wrong.what(),
                 "Example: 00 A4 04 00 07 D2760000850101 00", 0});
            if (!isInteractive) return refused;
        }
    }
    isCancelled();
    return mOutcome;
}

Outcome tellNdef(Session& session, CardSession& card) {
    Bytes message;
    if (const Outcome outcome = readNdefMessage(session, card, message); outcome != Outcome::done) return outcome;
    if (message.empty()) session.output().note("the NDEF message is empty");
    try {
        std::size_t number = 0;
        if (!message.empty())
            for (const NdefRecord& each : ndefRecords(message))
                tellNdefRecord(session.output(), ++number, each);
    } catch (const std::invalid_argument& wrong) {
        return session.output().error({Outcome::failed, "no NDEF message",
                                       std::string("the message is not sound: ") + wrong.what(),
                                       "The bytes are " + hexDigits(message) + ".", 0});
    }
    return Outcome::done;
}

Outcome talk(Session& session, const ApduArguments& arguments) {
    CardSession card(session, arguments.options);
    const auto timeout = fromSeconds(arguments.timeoutSeconds.value_or(0));
    // The wait for a card has a time of its own, waking one has not.
    if (arguments.timeoutSeconds) session.adaptor().resetSuspendTime(static_cast<std::uint32_t>(timeout.count()));
    if (const int status = card.waitForCard(arguments.access.uid, timeout); status != kOk)
        return session.fail(status, "waiting for a card");
    tellCard(session.output(), card.card());
    Outcome outcome = Outcome::done;
    if (arguments.ndef) {
        if (card.card().cid) session.mutePrompt(true);
        outcome = tellNdef(session, card);
    } else {
        Dialogue dialogue(session, card, arguments);
        outcome = arguments.commands ? dialogue.sendAll(*arguments.commands) : dialogue.sendInput();
    }
    if (const int status = card.close(); status != kOk && outcome == Outcome::done)
        outcome = session.fail(status, "deselecting the card");
    return outcome;
}

/// Reads all commands that the line names, so that a mistake shows before any of them is sent.
void readCommands(ApduArguments& arguments) {
    const bool raw = arguments.options.raw;
    try {
        if (!arguments.script.empty()) arguments.commands = commandsFromFile(arguments.script, raw);
        for (std::size_t i = 0; i < arguments.words.size(); ++i) {
            if (!arguments.commands) arguments.commands.emplace();
            try {
                arguments.commands->push_back(commandFromText(arguments.words[i], raw));
            } catch (const std::invalid_argument& wrong) {
                throw std::invalid_argument("command " + std::to_string(i + 1) + ": " + wrong.what());
            }
        }
    } catch (const std::invalid_argument& wrong) {
        throw std::invalid_argument(wrong.what());
    }
}

/// @return the option --ndef.
Option addSources(Options& options, ApduArguments& arguments) {
    const Option words = options
                             .value("HEX", arguments.words,
                                    "Commands, each one argument: bytes in hexadecimal, with blanks and\n"
                                    "colons anywhere")
                             .type("...");
    const Option script =
        options.value("--script", arguments.script, "Commands from this file, one a line; # begins a comment")
            .type("FILE")
            .excludes(words);
    return options.flag("--ndef", arguments.ndef, "Show the NDEF message (links, texts) of an NFC Forum Type 4 Tag")
        .excludes(words)
        .excludes(script);
}

}  // namespace

Work setUpApdu(Options& options) {
    const auto arguments = std::make_shared<ApduArguments>();
    const Option ndef = addSources(options, *arguments);
    const Option follow = options.flag("--follow", arguments->follow,
                                       "Fetch bytes that wait (61xx), repeat a command with a wrong Le (6Cxx)");
    const Option stop = options.flag("--stop-on-error", arguments->stopOnError,
                                     "End at the first status word other than 9000 and 61xx");
    options.flag("--retry", arguments->options.retry, "After a failed exchange wake the card and send once more");
    const Option nad =
        options.value("--nad", arguments->nad, "Node address (NAD) for cards that take one; 0 by default")
            .type("N")
            .range(0, kHighestNad);
    options.flag("--raw", arguments->options.raw, "Bytes that are no APDUs: of any length, answers without status word")
        .excludes(follow)
        .excludes(stop)
        .excludes(nad)
        .excludes(ndef);
    options.value("--timeout", arguments->timeoutSeconds, "How long to wait for a card, if not as --wait says")
        .type("SECONDS")
        .range(kShortestWaitSeconds, kLongestWaitSeconds);
    addUidOption(options, arguments->access);
    options.footer("Without HEX, --script and --ndef, commands come from standard input: from a terminal\n"
                   "with a prompt and a history, from a pipe one a line.\n"
                   "Each answer is shown with its status word: 9000 is success, others say what is wrong\n"
                   "and make the exit status 1. The card is deselected at the end in any case.\n\n"
                   "Examples:\n"
                   "  qvltag apdu \"00 A4 04 00 07 D2760000850101 00\"   select an application by its name\n"
                   "  qvltag apdu --script session.apdu --stop-on-error\n"
                   "  qvltag --virtual link.card apdu --ndef           the link on a tag");
    options.whenRead([arguments] {
        arguments->options.nad = static_cast<std::uint8_t>(arguments->nad);
        readCommands(*arguments);
    });
    return [arguments](Session& session) { return talk(session, *arguments); };
}
