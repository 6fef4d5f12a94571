// "apdu": commands to a smart card, from the line, a script, a pipe or a keyboard, and what the card answers.

#include "ApduText.h"
#include "AtsText.h"
#include "Command.h"
#include "ErrorText.h"
#include "InputLines.h"
#include "NdefText.h"
#include "StatusWords.h"
#include "TagAccess.h"
#include "Terminal.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = qvl::Bytes;

constexpr int kHighestNad = 0xFF;
constexpr double kShortestWaitSeconds = 0.001, kLongestWaitSeconds = 86'400;
constexpr const char* kCardPrompt = "Hold a card to the reader, Ctrl-C cancels";
constexpr std::size_t kLongestLine = 4 * kLongestApdu;

struct ApduArguments {
    TagAccess access;
    std::vector<std::string> words;
    std::string script;
    std::optional<std::vector<Bytes>> commands;  // None for those of standard input.
    qvl::SendOptions options;
    std::optional<double> timeoutSeconds;
    int nad = 0;
    bool follow = false;
    bool stopOnError = false;
    bool ndef = false;
};

void tellCard(Output& output, const qvl::Card& card) {
    Json object{{"card", card.uid().text()}, {"cid", card.number()}, {"ats", hexDigits(card.ats())}};
    std::vector<std::pair<std::string, std::string>> rows{
        {"Card", card.uid().text()}, {"CID", std::to_string(card.number())}, {"ATS", hexDigits(card.ats())}};
    if (const auto ats = atsText(card.ats())) {
        object.add("frameSize", ats->frameSize);
        object.add("takesCid", ats->takesCid);
        object.add("takesNad", ats->takesNad);
        object.add("historical", hexDigits(ats->historical));
        rows.back().second += "  (frames of " + std::to_string(ats->frameSize) + " bytes, " +
                              (ats->takesCid ? "CID" : "no CID") + ", " + (ats->takesNad ? "NAD" : "no NAD") + ")";
        if (!ats->historical.empty())
            rows.emplace_back("Historical", hexDigits(ats->historical) + "  " + printable(ats->historical));
    }
    output.put(object, alignedRows(rows));
}

/// What a card answered: an APDU's answer, or with --raw bytes without a status word.
struct Answer {
    Bytes data;
    std::optional<StatusWord> statusWord;
    std::vector<Bytes> followUps;
};

/// Sends commands one after the other, tells of each, and keeps in mind how it went.
class Dialogue {
  public:
    Dialogue(Session& session, qvl::Card& card, const ApduArguments& arguments)
        : mSession(session), mCard(card), mArguments(arguments) {}

    Outcome sendAll(const std::vector<Bytes>& commands);
    Outcome sendInput();

  private:
    /// @return whether a script may go on.
    bool send(const Bytes& command);
    Answer exchange(const Bytes& command);
    void tell(const Bytes& command, const Answer& answer);
    /// @return whether the end was requested, which is told.
    bool isCancelled();
    bool goesOn() { return mSession.output().isOpen() && !isCancelled(); }

    Session& mSession;
    qvl::Card& mCard;
    const ApduArguments& mArguments;
    std::size_t mNumber = 0;
    Outcome mOutcome = Outcome::done;
};

bool Dialogue::isCancelled() {
    if (!mSession.interrupt().requested()) return false;
    mOutcome = mSession.output().error({Outcome::failed, "cancelled", "the end was requested before all was sent", "",
                                        0, qvl::name(qvl::Reason::cancelled)});
    return true;
}

void Dialogue::tell(const Bytes& command, const Answer& answer) {
    Json object{{"command", hexDigits(command)}};
    std::string text = dumpRows("> ", command);
    std::vector<std::string> followUps;
    for (const Bytes& each : answer.followUps) {
        followUps.push_back(hexDigits(each));
        text += '\n';
        text += dumpRows("> ", each);
    }
    if (!followUps.empty()) object.add("followUps", followUps);
    object.add("data", hexDigits(answer.data));
    if (!answer.data.empty()) {
        text += '\n';
        text += dumpRows("< ", answer.data);
    }
    if (answer.statusWord) {
        const std::uint8_t word[] = {sw1(*answer.statusWord), sw2(*answer.statusWord)};
        const std::string meaning = statusWordText(*answer.statusWord);
        object.add("sw", hexDigits(word));
        object.add("meaning", meaning);
        object.add("fine", isFine(*answer.statusWord));
        text += "\n< " + hexDigits(word) + "  " + meaning;
    } else if (answer.data.empty()) {
        text += "\n< (nothing)";
    }
    mSession.output().put(object, text);
}

Answer Dialogue::exchange(const Bytes& command) {
    if (mArguments.follow) {
        qvl::ApduAnswer answer = mCard.exchange(command, mSession.limit(), mArguments.options);
        return {std::move(answer.data), answer.statusWord(), std::move(answer.followUps)};
    }
    constexpr std::size_t kStatusWord = 2;
    Bytes bytes = mCard.transmit(command, mSession.limit(), mArguments.options);
    const auto word = mArguments.options.raw ? std::nullopt : statusWordOf(bytes);
    if (word) bytes.resize(bytes.size() - kStatusWord);
    return {std::move(bytes), word, {}};
}

bool Dialogue::send(const Bytes& command) {
    ++mNumber;
    try {
        const Answer answer = exchange(command);
        tell(command, answer);
        if (mArguments.options.raw || (answer.statusWord && isFine(*answer.statusWord))) return true;
        mOutcome = Outcome::failed;
        return !mArguments.stopOnError;
    } catch (const qvl::Error& error) {
        mOutcome = mSession.fail(error, "command " + std::to_string(mNumber));
        return error.status() == kTclRestPending && !mArguments.stopOnError;
    }
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
                 "Example: 00 A4 04 00 07 D2760000850101 00", 0, ""});
            if (!isInteractive) return refused;
        }
    }
    isCancelled();
    return mOutcome;
}

Outcome tellNdef(Session& session, qvl::Card& card) {
    const Bytes message = qvl::readNdef(card, session.limit());
    if (message.empty()) {
        session.output().note("the NDEF message is empty");
        return Outcome::done;
    }
    try {
        std::size_t number = 0;
        for (const qvl::NdefRecord& each : qvl::NdefMessage::parse(message).records)
            tellNdefRecord(session.output(), ++number, each);
    } catch (const qvl::Error& error) {
        Problem problem = problemOf(error);
        problem.advice = "The bytes are " + hexDigits(message) + ".";
        return session.output().error(problem, "NDEF message");
    }
    return Outcome::done;
}

Outcome talk(Session& session, const ApduArguments& arguments) {
    const qvl::Limit limit =
        arguments.timeoutSeconds ? session.limit(fromSeconds(*arguments.timeoutSeconds), kCardPrompt) : session.limit();
    qvl::Card card = session.reader().waitForCard(arguments.access.uid, limit);
    tellCard(session.output(), card);
    Outcome outcome = Outcome::done;
    if (arguments.ndef) {
        outcome = tellNdef(session, card);
    } else {
        Dialogue dialogue(session, card, arguments);
        outcome = arguments.commands ? dialogue.sendAll(*arguments.commands) : dialogue.sendInput();
    }
    try {
        card.close();
    } catch (const qvl::Error& error) {
        if (outcome == Outcome::done) outcome = session.fail(error, "deselecting the card");
    }
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
