// The log.

#include "LogService.h"
#include "FreshProcess.h"
#include "IniManager.h"
#include "NamedMutex.h"
#include "TempDirectory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <string_view>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

bool gRaisedRights = false;
extern "C" unsigned long __real_getauxval(unsigned long);
extern "C" unsigned long __wrap_getauxval(unsigned long type);
unsigned long __wrap_getauxval(unsigned long type) {
    return type == AT_SECURE ? gRaisedRights : __real_getauxval(type);
}

namespace {

namespace fs = std::filesystem;
using ::testing::MatchesRegex;

constexpr std::size_t kMaximumSize = 0x100000;
const std::string kTime = R"(\[[0-9]{4}( [0-9]{2}){3}(:[0-9]{2}){2}:[0-9]{3}] )";

void say(const std::string& message, int level = kLogFailure, int line = 7, const char* file = "Some.cpp") {
    logMessage(level, message.c_str(), line, file, kLogFileReader);
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> result;
    std::ifstream text(path);
    for (std::string line; std::getline(text, line);)
        result.push_back(line);
    return result;
}

/// True for a record as say() makes it with this message.
bool isRecord(const std::string& line, const std::string& message) {
    static const std::regex kTimePattern(kTime);
    const std::size_t end = line.find("[E]");
    return end != std::string::npos && std::regex_match(line.substr(0, end), kTimePattern) &&
           line.substr(end) == "[E] [Line:7 @ Some.cpp] " + message;
}

/// An installation with a log directory. The service keeps its state for the life of a process, so each run is one.
class LogFile : public ::testing::Test {
  protected:
    LogFile() {
        platform::setNamedMutexDirectory(mInstall.path().c_str());
        ::setenv("QVL_PATH", mInstall.path().c_str(), 1);
        configure("LOGENABLE=1\n");
    }

    ~LogFile() override { platform::setNamedMutexDirectory(nullptr); }

    void configure(const std::string& keys, const std::string& path = "") {
        mInstall.write("data/conf/QVLReader.ini",
                       "[LOGSERVICE]\n" + keys + "LOGPATH=" + (path.empty() ? mLog : path) + "\n[/LOGSERVICE]\n");
    }
    std::string file(const std::string& name) const { return mLog + '/' + name; }
    std::string text(const std::string& name) const { return mInstall.read("a/log/" + name); }

    /// Names in the log directory with their sizes in lines.
    std::string listing() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(mLog))
            names.insert(entry.path().filename().string() + ':' + std::to_string(lines(entry.path().string()).size()));
        std::string result;
        for (const std::string& name : names)
            result += name + ' ';
        return result;
    }
    /// The file has its first line and these records, as say() makes them.
    void expectRecords(const std::string& name, const std::vector<std::string>& messages) const {
        const std::vector<std::string> all = lines(file(name));
        ASSERT_EQ(all.size(), 1 + messages.size()) << name;
        for (std::size_t i = 0; i < messages.size(); ++i)
            EXPECT_TRUE(isRecord(all[1 + i], messages[i])) << all[1 + i].substr(0, 80);
    }
    void plant(const std::string& name, const std::string& text) const { mInstall.write("a/log/" + name, text); }
    void plantFullFile(const std::string& name, std::size_t size = kMaximumSize) const {
        plant(name, std::string(size - 1, 'x') + '\n');
    }

    TempDirectory mInstall;
    std::string mLog = mInstall / "a/log";
};

TEST_F(LogFile, LevelsUpToTheConfiguredOnePassOnceItIsEnabled) {
    const std::pair<std::string, const char*> cases[] = {{"", ""},
                                                         {"LOGLEVEL=5\nLOGENABLE=0\n", ""},
                                                         {"LOGLEVEL=5\nLOGENABLE=on\n", ""},
                                                         {"LOGENABLE=1\nLOGLEVEL=-3\n", ""},
                                                         {"LOGENABLE=1\n", "EE"},
                                                         {"LOGENABLE=1\nLOGLEVEL=-0\n", "EE"},
                                                         {"LOGENABLE=1\nLOGLEVEL=\t+1x\n", "EES"},
                                                         {"LOGENABLE=1\nLOGLEVEL=3\n", "EESVD"},
                                                         {"LOGENABLE=1\nLOGLEVEL=99999999999\n", "EESVDMHHH"}};
    for (const auto& [keys, letters] : cases) {
        configure(keys);
        inFreshProcess([enabled = *letters != 0] {
            EXPECT_EQ(logWanted(kLogFailure), enabled);
            for (int i : {-1, 0, 1, 2, 3, 4, 5, 6, 1000})
                say("m", i);
        });
        std::string seen;
        for (const std::string& line : lines(file("rdrlog0000.txt")))
            if (const std::size_t end = line.find("] ["); end != std::string::npos) seen += line[end + 3];
        EXPECT_EQ(seen, letters) << keys;
        EXPECT_EQ(fs::exists(mInstall / "a"), *letters != 0);
        fs::remove_all(mLog);
    }
}

TEST_F(LogFile, RecordHasItsForm) {
    configure("LOGENABLE=1\nLOGLEVEL=5\n");
    inFreshProcess([] {
        logMessage(kLogProgress, "100% %s %n", 42, "/some/where/Source.v1.cpp", kLogFileReader);
        logMessage(kLogDetail, "", -1, "C:\\else\\where.c", kLogFileApplication);  // the first call chose the prefix
        logMessage(kLogDetail, nullptr, 0, nullptr, kLogFileReader);
        QVL_LOG(kLogState, "%s and %d", "text", 5);
        QVL_LOG(kLogState, "%s", std::string(5000, 'x').c_str());
        QVL_LOG(6, "%s", "not formatted");
    });
    EXPECT_EQ(text("rdrlog.dat"), "0");
    const std::string expected[] = {"\t[^ ].*",
                                    kTime + R"(\[D\] \[Line:42 @ Source\.v1\.cpp\] 100% %s %n)",
                                    kTime + R"(\[H\] \[Line:-1 @ where\.c\] )",
                                    kTime + R"(\[H\] \[Line:0 @ \] )",
                                    kTime + R"(\[S\] \[Line:[0-9]+ @ LogServiceTest\.cpp\] text and 5)",
                                    ".*[^x]x{4095}"};
    const std::vector<std::string> records = lines(file("rdrlog0000.txt"));
    ASSERT_EQ(records.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i)
        EXPECT_THAT(records[i], MatchesRegex(expected[i]));
}

TEST_F(LogFile, PathIsTakenWithDriveAndBackslashesAndTheKindChoosesThePrefix) {
    std::string foreign = "C:" + mLog + "\\x";
    std::replace(foreign.begin(), foreign.end(), '/', '\\');
    configure("LOGENABLE=1\n", foreign);
    const std::pair<int, const char*> kinds[] = {{1, "applog"}, {2, "rdrlog"}, {3, "schlog"}, {4, "qvllog"}};
    for (const auto& [kind, prefix] : kinds) {
        inFreshProcess([kind = kind] { logMessage(0, "m", 1, "f", static_cast<LogFileKind>(kind)); });
        EXPECT_EQ(lines(file("x/" + std::string(prefix) + "0000.txt")).size(), 2u) << prefix;
    }
    const auto load = [this](bool raised) {
        gRaisedRights = raised;
        fs::current_path(mInstall.path());
        IniManager::instance().setDirectoryAndReload((mInstall / "data/conf").c_str());
        IniManager::instance().loadAndReplace("QVLReader.ini");
    };
    configure("LOGENABLE=1\n", " ");
    inFreshProcess([&] {
        load(true);
        EXPECT_STREQ(iniGetValue("LOGSERVICE", "LOGPATH"), "");
        EXPECT_TRUE(logWanted(kLogFailure)) << "nothing stands for the default path, which begins at the root";
    });
    configure("LOGENABLE=1\n", "rel\\ative");
    for (const bool raised : {true, false}) {
        inFreshProcess([&] {
            load(raised);
            say("m");
        });
        EXPECT_EQ(fs::exists(mInstall / "rel"), !raised) << "the working directory must not say where files appear";
    }
    EXPECT_EQ(lines(mInstall / "rel/ative/rdrlog0000.txt").size(), 2u);
}

TEST_F(LogFile, RestartGoesOnOrKeepsAFullFileAsOld) {
    for (const char* message : {"one", "two"})
        inFreshProcess([&] { say(message); });
    expectRecords("rdrlog0000.txt", {"one", "two"});

    plantFullFile("rdrlog0000.txt", kMaximumSize - 1);  // the next record fills it
    inFreshProcess([] { say("three"); });
    EXPECT_EQ(text("rdrlog.dat"), "1");
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:2 rdrlog0001.txt:1 ");

    plant("rdrlog0001.old", "gone");
    plantFullFile("rdrlog0001.txt");
    inFreshProcess([] { say("four"); });
    EXPECT_EQ(text("rdrlog.dat"), "1");
    EXPECT_EQ(text("rdrlog0001.old").size(), kMaximumSize);
    expectRecords("rdrlog0001.txt", {"four"});
}

TEST_F(LogFile, MovesWhenExactlyFullAndWrapsBehind9999) {
    inFreshProcess([] { say(""); });
    const std::size_t empty = text("rdrlog0000.txt").size() - text("rdrlog0000.txt").find('\n') - 1;
    for (int missing : {1, 0}) {  // one byte below the boundary, then at it
        fs::remove_all(mLog);
        plant("rdrlog.dat", "9999");
        plant("rdrlog0000.txt", "earlier cycle\n");
        plantFullFile("rdrlog9999.txt", kMaximumSize - empty - static_cast<std::size_t>(missing));
        inFreshProcess([] { say(""); });
        EXPECT_EQ(text("rdrlog.dat"), missing ? "9999" : "0");
        EXPECT_EQ(text("rdrlog0000.old"), missing ? "" : "earlier cycle\n");
        EXPECT_EQ(text("rdrlog9999.txt").size(), kMaximumSize - static_cast<std::size_t>(missing));
    }
}

TEST_F(LogFile, SequenceFileIsTakenAsItStands) {
    const std::pair<std::string, const char*> cases[] = {
        {" +17x\n", "0017"}, {"12345", "12345"},      {"", "0000"},
        {"text", "0000"},    {"99999999999", "0000"}, {std::string(1 << 20, ' '), "0000"},
        {"-5", "0000"}};
    for (const auto& [planted, number] : cases) {
        fs::remove_all(mLog);
        plant("rdrlog.dat", planted);
        inFreshProcess([] { say("m"); });
        EXPECT_EQ(text("rdrlog.dat"), std::string(number) == "0000" ? "0" : planted);
        expectRecords(std::string("rdrlog") + number + ".txt", {"m"});
    }
}

TEST_F(LogFile, UnusableDirectoryDisturbsNobodyAndIsTriedAgain) {
    mInstall.write("a", "in the way");
    ::testing::internal::CaptureStdout();
    inFreshProcess([this] {
        const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
        errno = ENXIO;
        say("lost");
        EXPECT_EQ(errno, ENXIO);
        const auto before = descriptors();
        for (int i = 0; i < 1000; ++i)
            say("lost");
        EXPECT_EQ(descriptors(), before);
        fs::remove(mInstall / "a");
        say("found");
        std::fflush(stdout);
    });
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    expectRecords("rdrlog0000.txt", {"found"});
}

TEST_F(LogFile, DeletedFileIsNotWrittenOn) {
    inFreshProcess([this] {
        say("one");
        fs::remove(file("rdrlog0000.txt"));
        say("two");
    });
    expectRecords("rdrlog0000.txt", {"two"});
}

TEST_F(LogFile, InternalErrorsFollowTheRecord) {
    fs::create_directories(file("rdrlog.dat"));  // cannot be written
    inFreshProcess([] { say("m"); });
    const std::vector<std::string> records = lines(file("rdrlog0000.txt"));
    const std::string message = R"(\[Line:[0-9]+ @ LogService\] \(System Error\) Unable to open file )" +
                                file("rdrlog.dat") + " for write access";
    ASSERT_EQ(records.size(), 3u);
    EXPECT_TRUE(isRecord(records[1], "m"));
    EXPECT_THAT(records[2], MatchesRegex(kTime + R"(\[E\] )" + message));
}

TEST_F(LogFile, PlantedNamesAreNotWrittenThrough) {
    const std::string victim = mInstall / "victim";
    for (const char* name : {"rdrlog0000.txt", "rdrlog0000.old", "rdrlog.dat"}) {
        for (const bool isFifo : {false, true}) {
            fs::remove_all(mLog);
            fs::create_directories(mLog);
            mInstall.write("victim", "5");
            if (isFifo)
                ASSERT_EQ(::mkfifo(file(name).c_str(), 0600), 0);
            else
                fs::create_symlink(victim, file(name));
            inFreshProcess([] { say("m"); });
            EXPECT_EQ(mInstall.read("victim"), "5") << name;
            EXPECT_TRUE(isRecord(lines(file("rdrlog0000.txt")).at(1), "m")) << name;
        }
    }
}

TEST_F(LogFile, ThreadsSetUpOnceAndKeepTheirLinesWholeFromFileToFile) {
    constexpr int kThreads = 8, kRecords = 60;
    inFreshProcess([] {
        inThreadsAtOnce(kThreads, [](int thread) {
            for (int i = 0; i < kRecords; ++i)
                say(std::to_string(i) + std::string(5000, static_cast<char>('a' + thread)));
        });
    });
    int next[kThreads] = {};
    for (const char* name : {"rdrlog0000.txt", "rdrlog0001.txt", "rdrlog0002.txt"}) {
        const std::vector<std::string> records = lines(file(name));
        ASSERT_FALSE(records.empty()) << name;
        EXPECT_EQ(records.front()[0], '\t');
        for (std::size_t i = 1; i < records.size(); ++i) {
            const char letter = records[i].back();
            ASSERT_TRUE(letter >= 'a' && letter < 'a' + kThreads) << records[i];
            EXPECT_TRUE(isRecord(records[i], std::to_string(next[letter - 'a']++) + std::string(5000, letter)));
        }
    }
    for (const int count : next)
        EXPECT_EQ(count, kRecords);
    EXPECT_EQ(text("rdrlog.dat"), "2");
}

TEST_F(LogFile, ProcessesShareADirectoryAndLoseNothing) {
    constexpr int kProcesses = 8, kRecords = 400;
    const std::string filler = ' ' + std::string(1500, 'x');
    std::vector<std::unique_ptr<ForkedChild>> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(std::make_unique<ForkedChild>([&] {
            for (int i = 0; i < kRecords; ++i)
                say(std::to_string(p) + ' ' + std::to_string(i) + filler);
            return 0;
        }));
    for (const auto& child : children)
        EXPECT_EQ(child->wait(), 0);

    std::set<std::string> seen;
    for (const auto& entry : fs::directory_iterator(mLog))
        for (const std::string& line : lines(entry.path().string())) {
            if (line[0] != '[') continue;  // first lines, and the sequence file
            const std::string message = line.substr(std::min<std::size_t>(line.find("cpp] ") + 5, line.size()));
            EXPECT_TRUE(isRecord(line, message) && message.ends_with(filler)) << line;
            seen.insert(message);
        }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kRecords));
}

TEST_F(LogFile, NumberThatAnotherProcessMovedOnIsJoined) {
    inFreshProcess([this] {
        say("first");
        plant("rdrlog.dat", "5");
        plant("rdrlog0005.txt", "theirs\n");
        say(std::string(kMaximumSize, 'x'));
        say("joined");
    });
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:3 rdrlog0005.txt:2 ");
}

TEST_F(LogFile, WithoutDescriptorsTheFileKeepsItsPlace) {
    for (const char* message : {"one", "two"})
        inFreshProcess([&] {
            EXPECT_TRUE(logWanted(kLogFailure));
            const rlimit none{0, 0};
            if (std::string_view(message) == "two") ::setrlimit(RLIMIT_NOFILE, &none);
            say(message);
        });
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:2 ");
}

TEST_F(LogFile, WhoCannotReplaceFilesWritesOnUpToTwiceTheSize) {
    platform::NamedMutex otherProcess("QUORVELLOG_MUTEX");
    const std::lock_guard hold(otherProcess);
    const std::pair<std::size_t, const char*> cases[] = {{kMaximumSize + 1000, "0"}, {2 * kMaximumSize + 1000, "1"}};
    for (const auto& [size, number] : cases) {
        inFreshProcess([this, size = size] {
            while (text("rdrlog0000.txt").size() < size - 1000)
                say(std::string(100'000, 'x'));
        });
        EXPECT_EQ(text("rdrlog.dat"), number);
    }
    EXPECT_GE(text("rdrlog0000.txt").size(), 2 * kMaximumSize);
}

TEST_F(LogFile, StaticDestructorsMayLog) {
    struct LateLogger {
        ~LateLogger() { say("late"); }
    };
    for (const bool isFirstCall : {true, false})
        inFreshProcess([&] {
            static const LateLogger late;
            if (!isFirstCall) say("early");
            std::exit(0);
        });
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:4 ");
}

}  // namespace
