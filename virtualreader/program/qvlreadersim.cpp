// The program: a virtual reader on a serial port or a message socket, steered by line commands.

#include "ControlServer.h"
#include "Devices.h"
#include "LineCommands.h"
#include "ReaderClasses.h"
#include "SocketEndpoint.h"
#include "TerminalEndpoint.h"
#include "VirtualMf500Reader.h"
#include "VirtualTamaReader.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kFailed = 1, kUsage = 2;

/// The models, and the first interface class in which hosts look for each.
constexpr const char* kTama = "tama";
constexpr const char* kTamaClass = "fe2f504b-5f97-4d4d-873d-559e49009dc6";
constexpr const char* kMf500 = "mf500";
constexpr const char* kMf500Class = "a518e23b-d631-426f-b8f0-e17a61065f1d";

struct Settings {
    std::string root;
    unsigned com = 0;
    std::string socket, classGuid;
    std::string model = kTama;
    std::uint32_t baudRate = 0;
    std::string faults, control;
    std::vector<std::string> tags;
    bool keepRunning = false, saveOnExit = false, quiet = false;
    bool noLinkKey = false;
    ReaderOptions reader;
    TagQuirks quirks;
};

std::vector<std::string> knownClasses() {
    std::vector<std::string> all;
    all.reserve(kReaderClasses.size());
    for (const ReaderClass& each : kReaderClasses)
        all.emplace_back(each.guid);
    return all;
}

void addWhereOptions(CLI::App& app, Settings& into) {
    constexpr const char* kWhere = "Where the reader appears";
    app.add_option("--root", into.root, "Device root (default: QVL_DEVICE_ROOT, else /dev/qvlreader)")
        ->option_text("DIR")
        ->group(kWhere);
    auto* com = app.add_option("--com", into.com, "Serial port COM<N> (default, with N = 1)")
                    ->option_text("N")
                    ->check(CLI::Range(1, 255))
                    ->group(kWhere);
    app.add_option("--socket", into.socket,
                   "Message socket of this name instead of a serial port (default of mf500: mf500)")
        ->option_text("NAME")
        ->check([](const std::string& name) {
            const bool sound = !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
            return sound ? std::string() : "a name without slashes is needed, such as usb#vid_04cc&pid_0531#1";
        })
        ->excludes(com)
        ->group(kWhere);
    app.add_option("--class", into.classGuid, "Interface class of the socket (default: the model's own)")
        ->option_text("GUID")
        ->check(CLI::IsMember(knownClasses()))
        ->group(kWhere);
    app.add_option("--baud", into.baudRate, "Pace the serial bytes at this rate, 10 bits a byte (default: no pacing)")
        ->option_text("RATE")
        ->check(CLI::Range(300, 4'000'000))
        ->group(kWhere);
}

void addModelOptions(CLI::App& app, Settings& into) {
    constexpr const char* kReader = "Reader model";
    app.add_option("--reader", into.model, "tama, a PN531 (default), or mf500, an MF RC500 on a message socket")
        ->option_text("MODEL")
        ->check(CLI::IsMember({kTama, kMf500}))
        ->group(kReader);
    app.add_flag("--no-link-key", into.noLinkKey, "Does not know the key commands; the link stays in the clear")
        ->group(kReader);
    app.add_flag("--zero-session-key", into.reader.zeroSessionKey, "Gives a session key of zeros")->group(kReader);
    app.add_flag("--error-to-bad-frames", into.reader.errorToBadFrames,
                 "Answers a frame with a wrong checksum with ERROR instead of silence")
        ->group(kReader);
    app.add_flag("--atqa-high-first", into.reader.atqaHighByteFirst, "Reports the ATQA high byte first")
        ->group(kReader);
    app.add_flag("--cascade-tag", into.reader.cascadeTagInUid, "Reports long UIDs with their cascade tags")
        ->group(kReader);
    app.add_flag(
           "--refused-13", [&into](std::int64_t) { into.reader.refusedStatus = kTamaBadFormat; },
           "Status 13 instead of 01 when a tag refuses a block command")
        ->group(kReader);

    constexpr const char* kTags = "Tag model, for all tags";
    app.add_flag("--auth-uid-last", into.quirks.lastUidBytesAuthenticate,
                 "Authentication takes the last four bytes of a long UID, not the first")
        ->group(kTags);
    app.add_flag("--readable-key-b-refused", into.quirks.readableKeyBRefused,
                 "Refuses the authentication itself with a key B that can be read")
        ->group(kTags);
    app.add_flag("--partial-trailer-refused", into.quirks.partialTrailerWriteRefused,
                 "Refuses a trailer of which only some fields may be written")
        ->group(kTags);
    app.add_flag("--strict-cid", into.quirks.strictCid, "Smart cards keep the number that RATS gave them")
        ->group(kTags);
}

void addRunOptions(CLI::App& app, Settings& into) {
    constexpr const char* kRun = "How it runs";
    app.add_option("--faults", into.faults, "Fault plan, one rule a line")->option_text("FILE")->group(kRun);
    app.add_option("--control", into.control, "Stream socket that takes the line commands too")
        ->option_text("SOCKET")
        ->group(kRun);
    app.add_flag("--keep-running", into.keepRunning, "The end of standard input does not end the program")->group(kRun);
    app.add_flag("--save-on-exit", into.saveOnExit, "Write changed images back to their files")->group(kRun);
    app.add_flag("-q,--quiet", into.quiet, "No \"ready\" line and no warnings")->group(kRun);
    app.set_version_flag("-V,--version", "qvlreadersim " QVL_VERSION);
    app.add_option("TAG", into.tags, "Tags in the field: image files, .card files, or new:KIND[:UID]")
        ->option_text("...");
    app.footer("Line commands on standard input: place, remove, away, back, list, save, reader, fault, faults, led,\n"
               "field, help, quit. The manual page qvlreadersim(1) explains them, fault plans and .card files.\n\n"
               "Example: qvlreadersim --root /tmp/dev --com 1 mytag.mfd");
}

/// @return 0, or the exit status after a message.
int fail(const std::string& message, int status = kFailed) {
    std::cerr << "qvlreadersim: " << message << "\n";
    return status;
}

std::string addFaultFile(VirtualReader& reader, const std::string& path) {
    if (path.empty()) return {};
    std::ifstream file(path);
    file.peek();  // an empty file ends here, what cannot be read fails
    if (!file.is_open() || file.bad()) return path + ": the fault plan cannot be read";
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::string wrong = reader.addFaults(text);
    return wrong.empty() ? wrong : path + ": " + wrong;
}

/// Publishes the reader, tells so, and serves the commands until the end.
template <typename Endpoint>
int serve(Endpoint& endpoint, LineCommands& commands, ControlServer& control, const Settings& settings) {
    if (const std::string wrong = endpoint.start(); !wrong.empty()) return fail(wrong);
    commands.onReaderMoved([&endpoint] { return endpoint.settle(); });
    if (!settings.quiet) std::cout << "ready " << endpoint.name() << " at " << settings.root << std::endl;
    control.run();
    endpoint.stop();
    return 0;
}

template <typename Endpoint>
int simulate(const Settings& settings, const std::shared_ptr<VirtualReader>& reader, Endpoint&& endpoint) {
    LineCommands commands(reader, settings.quirks, settings.saveOnExit);
    ControlServer control(commands, settings.control.empty() && !settings.keepRunning);

    if (const std::string wrong = addFaultFile(*reader, settings.faults); !wrong.empty()) return fail(wrong, kUsage);
    for (const std::string& tag : settings.tags) {
        std::string answer = commands.place(tag);
        if (!answer.empty()) answer.pop_back();
        if (answer.starts_with("error: ")) return fail(answer.substr(7), kUsage);
        if (!settings.quiet && answer.find("warning") != std::string::npos) fail(answer.substr(3));
    }
    if (!settings.control.empty())
        if (const std::string wrong = control.listen(settings.control); !wrong.empty()) return fail(wrong);

    const int status = serve(endpoint, commands, control, settings);
    const std::string unsaved = commands.saveAll();
    return unsaved.empty() ? status : fail(unsaved.substr(0, unsaved.size() - 1));
}

int simulateTama(const Settings& settings) {
    const auto reader = std::make_shared<VirtualTamaReader>(settings.reader);
    if (settings.socket.empty())
        return simulate(
            settings, reader,
            TerminalEndpoint(reader, settings.root, settings.com == 0 ? 1 : settings.com, settings.baudRate));
    const std::string classGuid = settings.classGuid.empty() ? kTamaClass : settings.classGuid;
    return simulate(settings, reader, SocketEndpoint(reader, settings.root, classGuid, settings.socket));
}

int simulateMf500(const Settings& settings) {
    const ReaderOptions plain;
    const bool hasTamaModel = settings.reader.errorToBadFrames || settings.reader.atqaHighByteFirst ||
                              settings.reader.cascadeTagInUid || settings.reader.refusedStatus != plain.refusedStatus;
    if (settings.com != 0 || settings.baudRate != 0 || hasTamaModel)
        return fail("--com, --baud, --error-to-bad-frames, --atqa-high-first, --cascade-tag and --refused-13 do not go "
                    "with --reader mf500",
                    kUsage);
    const auto reader = std::make_shared<VirtualMf500Reader>(settings.reader);
    const std::string classGuid = settings.classGuid.empty() ? kMf500Class : settings.classGuid;
    return simulate(
        settings, reader,
        SocketEndpoint(reader, settings.root, classGuid, settings.socket.empty() ? kMf500 : settings.socket));
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    CLI::App app("A reader for contactless tags without hardware: hosts open it like a real one.", "qvlreadersim");
    addWhereOptions(app, settings);
    addModelOptions(app, settings);
    addRunOptions(app, settings);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : kUsage;
    }
    if (settings.root.empty()) settings.root = platform::deviceRoot();
    settings.reader.knowsLinkKey = !settings.noLinkKey;
    return settings.model == kMf500 ? simulateMf500(settings) : simulateTama(settings);
}
