// The program: reads the command line, opens a session, and runs one command in it.

#include "Command.h"
#include "Interrupt.h"
#include "Options.h"
#include "Output.h"
#include "Session.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace {

constexpr double kShortestWaitSeconds = 0.001, kLongestWaitSeconds = 86'400;

constexpr const char* kExamples = "Examples:\n"
                                  "  qvltag poll                                follow the tags until Ctrl-C\n"
                                  "  qvltag --json poll --count 1               the next tag as a JSON object\n"
                                  "  qvltag read 4 all --key @door.key          the data of a tag\n"
                                  "  qvltag dump tag.mfd --keys known.keys      all of it into an image file\n"
                                  "  qvltag apdu --ndef                         the link or text on a smart card\n"
                                  "  qvltag --virtual tag.mfd ls --apps         without a reader: a tag from an image\n"
                                  "  qvltag --virtual new:1k --virtual new:ultralight poll --count 2\n\n"
                                  "Exit status: 0 done, 1 refused, failed or cancelled, 2 usage, 3 no reader.\n"
                                  "\"qvltag COMMAND --help\" explains a command, the manual page qvltag(1) all.";

/// Help without the types and conditions that the library would spell out; the descriptions say what is needed.
class PlainHelp : public CLI::Formatter {
  public:
    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_type_size() == 0) return {};
        const std::string type = option->get_type_name();
        const std::string name = type.substr(0, type.find(':'));
        return name.empty() ? name : " " + name;
    }
};

/// A slip of the pen in front of a key must not bring the key into a complaint.
std::string withoutKeys(const std::string& text) {
    constexpr std::ptrdiff_t kKeyDigits = 12;
    const auto isDigit = [](unsigned char c) { return std::isxdigit(c) != 0; };
    std::string shown;
    for (auto at = text.begin(); at != text.end();) {
        const auto end = std::find_if_not(at, text.end(), isDigit);
        if (end - at >= kKeyDigits)
            shown += "(hexadecimal digits)";
        else
            shown.append(at, end);
        at = end;
        if (at != text.end()) shown += *at++;
    }
    return shown;
}

/// The command line as an object: options that all commands share, and the commands with their work.
class CommandLine {
  public:
    CommandLine() : mApp("Work with contactless tags and smart cards through a reader.", "qvltag") {
        Options options(mApp);
        addSharedOptions(options);
        mApp.formatter(std::make_shared<PlainHelp>());
        mApp.fallthrough();
        mApp.footer(kExamples);
        mWork = addCommands(options, commands());
    }

    /// @throws CLI::ParseError for a wrong line, and for help and version.
    void parse(int argc, char** argv) { mApp.parse(argc, argv); }
    const SessionSettings& settings() const { return mSettings; }
    const Work& work() const { return mWork; }
    /// What to say and how to end when `parse` has thrown.
    Outcome answer(const CLI::ParseError& thrown, Output& output) const;

  private:
    void addSharedOptions(Options& options);

    CLI::App mApp;
    SessionSettings mSettings;
    bool mJson = false;
    Work mWork;
};

void CommandLine::addSharedOptions(Options& options) {
    options.flag("--json", mJson, "Say everything, complaints too, as one JSON object a line");
    const Option images = options
                              .value("--virtual", mSettings.images,
                                     "Use a virtual reader with this tag, an image file or new:KIND (mini, 1k, 4k,\n"
                                     "ultralight, card); once for each tag")
                              .type("IMAGE")
                              .onceEach();
    options
        .value("--reader", mSettings.model,
               "Model of the virtual reader: tama, a PN531 (default), or mf500, an MF RC500")
        .type("MODEL")
        .oneOf({"tama", "mf500"})
        .needs(images);
    options.flag("--save", mSettings.saveImages, "Write changed tags of the virtual reader back to their files")
        .needs(images);
    const Option noWait = options.flag(
        "--no-wait", [this] { mSettings.wait = false; }, "One attempt at a tag, no prompt, no wait");
    options.value("--wait", mSettings.waitSeconds, "How long an operation waits for a tag; 30 by default")
        .type("SECONDS")
        .range(kShortestWaitSeconds, kLongestWaitSeconds)
        .excludes(noWait);
    options.value("--deadline", mSettings.deadlineSeconds, "Time for the whole command, all its waits together")
        .type("SECONDS")
        .range(kShortestWaitSeconds, kLongestWaitSeconds);
    options
        .value("--wait-for-reader", mSettings.readerSeconds,
               "How long to wait for a reader, or for another program to\nleave it; 1 by default")
        .type("SECONDS")
        .range(kShortestWaitSeconds, kLongestWaitSeconds);
    mApp.set_version_flag("-V,--version", "qvltag " QVL_VERSION);
}

Outcome CommandLine::answer(const CLI::ParseError& thrown, Output& output) const {
    if (thrown.get_exit_code() == 0) {
        std::ostringstream text, unused;
        mApp.exit(thrown, text, unused);
        output.plain(text.str());
        return Outcome::done;
    }
    std::string named;
    const CLI::App* last = &mApp;
    for (auto used = last->get_subcommands(); !used.empty(); used = last->get_subcommands()) {
        last = used.front();
        named += last->get_name() + " ";
    }
    const bool family = last->get_require_subcommand_min() > 0;
    // A word that nobody knows is the cause of whatever else is wrong.
    const auto words = mApp.remaining(true);
    const auto option = std::ranges::find_if(words, [](const auto& each) { return each.starts_with('-'); });
    std::string meaning = thrown.what();
    if (option != words.end())
        meaning = "not expected: " + *option;
    else if (family && !words.empty())
        meaning = "unknown command or option \"" + words.front() + "\"";
    const char* what = family ? "lists the commands." : "tells more.";
    return output.error(
        {Outcome::usage, "usage", withoutKeys(meaning), "\"qvltag " + named + "--help\" " + what, 0, ""});
}

/// Complaints about the line itself need to know before it is read.
bool asksForJson(int argc, char** argv) {
    return std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
}

Outcome runCommand(const CommandLine& line, Output& output, Interrupt& interrupt) {
    Session session(line.settings(), output, interrupt);
    Outcome outcome = Outcome::done;
    try {
        session.open();
        outcome = line.work()(session);
    } catch (const qvl::Error& error) {
        outcome = session.fail(error);
    } catch (const Problem& problem) {
        outcome = output.error(problem);
    }
    const Outcome ending = session.close();
    if (outcome == Outcome::done) outcome = ending;
    return outcome == Outcome::done && !output.isOpen() ? Outcome::failed : outcome;
}

Outcome runProgram(int argc, char** argv, Output& output, Interrupt& interrupt) {
    CommandLine line;
    try {
        line.parse(argc, argv);
    } catch (const CLI::ParseError& thrown) {
        return line.answer(thrown, output);
    }
    return runCommand(line, output, interrupt);
}

}  // namespace

int main(int argc, char** argv) {
    Interrupt interrupt;
    Output output(asksForJson(argc, argv));
    try {
        return static_cast<int>(runProgram(argc, argv, output, interrupt));
    } catch (const std::exception& error) {
        return static_cast<int>(output.error({Outcome::failed, "failed", error.what(), "", 0, ""}));
    }
}
