// The program qvlreadersim and what stands behind its commands.

#include "ChildProgram.h"
#include "HexBytes.h"
#include "TempDirectory.h"

#include "LineCommands.h"
#include "MifareClassicTag.h"

#include <filesystem>
#include <regex>
#include <tuple>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

const std::string kClass = "61217dae-665d-424b-baa9-99897897d6ae";

/// A connection to the control socket.
class Control {
  public:
    explicit Control(const std::string& path) : mSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Control() { ::close(mSocket); }
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    /// One command. @return all lines up to the one that begins with "ok" or "error".
    std::string ask(const std::string& command) {
        EXPECT_TRUE(say(command));
        std::string all;
        static const std::regex kWhole("(.*\n)*(ok|error).*\n");
        for (char c = 0; !std::regex_match(all, kWhole) && ::recv(mSocket, &c, 1, 0) == 1;)
            all += c;
        return all;
    }

    /// Sends a command and leaves its answer. @return false if the program takes no more for now.
    bool say(const std::string& command) {
        const std::string line = command + '\n';
        return ::send(mSocket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
    }

  private:
    int mSocket;
};

struct Program : ChildProgram {
    explicit Program(const std::vector<std::string>& arguments) : ChildProgram(QVLREADERSIM, arguments) {}
};

bool isThere(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

std::string blank(const char* uid) {
    const auto image = MifareClassicTag::blankImage(1024, hex(uid));
    return {image.begin(), image.end()};
}

TEST(SimulatorProgram, IsSteeredOverItsControlSocket) {
    const TempDirectory directory;
    const std::string image = directory.write("my tag.mfd", blank("01020304")), socket = directory / "control";
    const mode_t former = ::umask(0);
    Program program({"--root", directory.path(), "--com", "3", "--faults", directory.write("empty", ""), "--control",
                     socket, "new:1k:DEADBEEF"});
    ::umask(former);
    EXPECT_EQ(program.line(), "ready COM3 at " + directory.path());
    program.close(ChildProgram::input);

    EXPECT_EQ(std::filesystem::status(socket).permissions(), std::filesystem::perms(0600));
    Control deaf(socket), peer(socket), other(socket);
    while (deaf.say("help")) {
    }
    const std::string tag1 = "tag1  Classic 1K  deadbeef  off  new:1k:DEADBEEF\n";
    const std::pair<std::string, std::string> dialogue[] = {
        {"list", tag1 + "ok"},
        {"place " + image + " as mine", "ok mine"},
        {"place " + image + " as mine", "error: the name \"mine\" is taken; \"remove mine\" frees it"},
        {"place", "error: a file is missing: place FILE [as NAME]"},
        {"place " + image + " as two words", "error: a name is one word: place FILE [as NAME]"},
        {"away mine", "ok"},
        {"list", tag1 + "mine  Classic 1K  01020304  away  " + image + "\nok"},
        {"back mine", "ok"},
        {"save mine " + (directory / "copy"), "ok " + (directory / "copy")},
        {"save mine", "ok " + image},
        {"save tag1", "error: \"tag1\" has no image file of its own: save tag1 FILE"},
        {"remove mine", "ok"},
        {"remove mine", "error: there is no tag \"mine\"; \"list\" shows them"},
        {"away", "error: the name of a tag is missing; \"list\" shows them"},
        {"fault 4A 1 no reply", "ok"},
        {"fault 4A", "error: a count is missing, \"3\" or \"from 3\", the first being 1; found nothing"},
        {"faults clear", "ok"},
        {"faults", "error: \"faults\" takes \"clear\""},
        {"led", "ok 00"},
        {"reader", "error: \"reader\" takes \"gone\" or \"back\""},
        {"dance", "error: unknown command \"dance\"; \"help\" lists them"},
    };
    for (const auto& [command, answer] : dialogue)
        EXPECT_EQ(peer.ask(command), answer + "\n");
    for (const bool isBack : {false, true, false, true}) {
        EXPECT_EQ(peer.ask(isBack ? "reader back" : "reader gone"), "ok\n");
        EXPECT_EQ(isThere(directory / "COM3"), isBack);
    }
    Program second({"--root", directory.path(), "--com", "3"});
    EXPECT_EQ(second.line(ChildProgram::errors),
              "qvlreadersim: " + (directory / "COM3") +
                  ": another simulator serves this name; end it or choose another name");
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(directory.read("copy"), directory.read("my tag.mfd"));
    EXPECT_NE(other.ask("help").find("place FILE"), std::string::npos);
    EXPECT_EQ(other.ask("quit"), "ok\n");
    EXPECT_EQ(program.wait(), 0);
    EXPECT_FALSE(isThere(directory / "COM3") || isThere(socket));
}

TEST(SimulatorProgram, EndsWithItsInputOrASignalAndCleansUp) {
    const TempDirectory directory;
    const std::string name = "usb#vid_04cc&pid_0531#1", entry = directory / (kClass + "/" + name);
    Program byInput({"--root", directory.path(), "--socket", name, "--class", kClass});
    EXPECT_EQ(byInput.line(), "ready " + name + " at " + directory.path());
    EXPECT_TRUE(isThere(entry));
    byInput.say("led\n");
    EXPECT_EQ(byInput.line(), "ok 00");
    byInput.say("field");
    byInput.close(ChildProgram::input);
    EXPECT_EQ(byInput.line(), "ok off") << "the last line may lack its newline";
    EXPECT_EQ(byInput.wait(), 0);
    EXPECT_FALSE(isThere(entry));

    for (int number : {SIGTERM, SIGINT}) {
        Program bySignal({"--root", directory.path(), "--keep-running"});
        EXPECT_EQ(bySignal.line(), "ready COM1 at " + directory.path());
        bySignal.close(ChildProgram::input);
        EXPECT_TRUE(isThere(directory / "COM1"));
        bySignal.signalGroup(number);
        EXPECT_EQ(bySignal.wait(), 0);
        EXPECT_FALSE(isThere(directory / "COM1"));
    }
}

TEST(SimulatorProgram, RefusesWhatItCannotServe) {
    const TempDirectory directory;
    const std::string plan = directory.write("plan", "4A 1 no reply\n4A oops\n"), root = "--root";
    const std::tuple<std::vector<std::string>, int, const char*> kMistakes[] = {
        {{root, directory.path(), "none.mfd"}, 2, "qvlreadersim: none.mfd: there is no such file"},
        {{root, directory.path(), "--faults", plan}, 2, "plan: line 2: a count is missing"},
        {{root, directory.path(), "--faults", "none"}, 2, "none: the fault plan cannot be read"},
        {{"--com", "0"}, 2, "--com"},
        {{"--com", "1", "--socket", "x"}, 2, "excludes"},
        {{"--socket", "x", "--class", "zz"}, 2, kClass.c_str()},
        {{root, directory.path(), "--faults", directory.path()}, 2, "the fault plan cannot be read"},
        {{"--socket", "a/b"}, 2, "a name without slashes"},
        {{root, plan}, 1, "the directory cannot be made"},
        {{root, directory.path(), "--control", "/no/such/place"}, 1, "the control socket cannot be made"},
    };
    for (const auto& [arguments, status, expected] : kMistakes) {
        Program program(arguments);
        const std::string complaint = program.line(ChildProgram::errors);
        EXPECT_NE(complaint.find(expected), std::string::npos) << complaint;
        EXPECT_EQ(program.wait(), status) << complaint;
    }
    for (const char* other : {"--com=1", "--baud=9600", "--cascade-tag", "--atqa-high-first", "--refused-13"})
        EXPECT_EQ(Program({"--reader", "mf500", other}).wait(), 2) << other;
}

TEST(Simulator, SavesWhatChangedWhenTagsLeave) {
    const TempDirectory directory;
    const std::uint8_t change[] = {0xAA};
    for (bool save : {false, true}) {
        const std::string image = directory.write("tag.mfd", blank("01020304"));
        const std::string kept = directory.write("kept.mfd", blank("01020304"));
        const auto reader = std::make_shared<VirtualTamaReader>();
        LineCommands simulator(reader, {}, save);
        EXPECT_EQ(simulator.run("  place " + image + " \r"), "ok tag1\n");
        EXPECT_EQ(simulator.run("place " + kept), "ok tag2\n");
        EXPECT_EQ(simulator.run("place new:card"), "ok tag3\n");
        for (const auto& entry : reader->field().list())
            if (entry.tag->memory()) entry.tag->memory()->write(20, change);
        EXPECT_EQ(simulator.run("remove tag1"), "ok\n");
        EXPECT_EQ(directory.read("tag.mfd")[20] == '\xAA', save);
        EXPECT_EQ(simulator.saveAll(), "");
        EXPECT_EQ(directory.read("kept.mfd")[20] == '\xAA', save);
    }
}

}  // namespace
