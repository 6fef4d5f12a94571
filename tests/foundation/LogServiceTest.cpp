#include "LogService.h"
#include "FreshProcess.h"
#include "NamedMutex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <set>
#include <sstream>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

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
    std::istringstream text(readFile(path));
    for (std::string line; std::getline(text, line);)
        result.push_back(line);
    return result;
}

/// True for a record as say() makes it with this message.
bool isRecord(const std::string& line, const std::string& message) {
    constexpr std::string_view kMask = "[0000 00 00 00:00:00:000] ";
    std::string time = line.substr(0, kMask.size());
    std::replace_if(
        time.begin(), time.end(), [](char c) { return c >= '0' && c <= '9'; }, '0');
    return time == kMask && line.substr(kMask.size()) == "[E] [Line:7 @ Some.cpp] " + message;
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
        writeFile(mInstall / "data/conf/QVLReader.ini",
                  "[LOGSERVICE]\n" + keys + "LOGPATH=" + (path.empty() ? mLog : path) + "\n[/LOGSERVICE]\n");
    }
    std::string file(const std::string& name) const { return mLog + '/' + name; }
    std::string text(const std::string& name) const { return readFile(file(name)); }

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
    void plantFullFile(const std::string& name, std::size_t size = kMaximumSize) const {
        writeFile(file(name), std::string(size - 1, 'x') + '\n');
    }

    TempDirectory mInstall;
    std::string mLog = mInstall / "a/log";
};

TEST_F(LogFile, NothingIsWrittenUnlessEnabled) {
    for (const char* keys : {"", "LOGLEVEL=5\n", "LOGLEVEL=5\nLOGENABLE=0\n", "LOGLEVEL=5\nLOGENABLE=on\n"}) {
        configure(keys);
        inFreshProcess([] {
            EXPECT_FALSE(logWanted(kLogFailure));
            EXPECT_FALSE(logWanted(-1));
            say("unheard");
        });
        EXPECT_FALSE(fs::exists(mInstall / "a")) << keys;
    }
}

TEST_F(LogFile, LevelsUpToTheConfiguredOnePass) {
    const std::pair<const char*, const char*> cases[] = {{"", "EE"},
                                                         {"LOGLEVEL=0\n", "EE"},
                                                         {"LOGLEVEL=-3\n", "EE"},
                                                         {"LOGLEVEL=3\n", "EESVD"},
                                                         {"LOGLEVEL=5\n", "EESVDMH"},
                                                         {"LOGLEVEL=99999999999\n", "EESVDMHHH"}};
    for (const auto& [level, letters] : cases) {
        fs::remove_all(mLog);
        configure(std::string("LOGENABLE=1\n") + level);
        inFreshProcess([] {
            for (int i : {-1, 0, 1, 2, 3, 4, 5, 6, 1000})
                say("m", i);
        });
        std::string seen;
        for (const std::string& line : lines(file("rdrlog0000.txt")))
            if (const std::size_t end = line.find("] ["); end != std::string::npos) seen += line[end + 3];
        EXPECT_EQ(seen, letters) << level;
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
    const std::vector<std::string> records = lines(file("rdrlog0000.txt"));
    const std::string expected[] = {"\t[^ ].*", kTime + R"(\[D\] \[Line:42 @ Source\.v1\.cpp\] 100% %s %n)",
                                    kTime + R"(\[H\] \[Line:-1 @ where\.c\] )", kTime + R"(\[H\] \[Line:0 @ \] )",
                                    kTime + R"(\[S\] \[Line:[0-9]+ @ LogServiceTest\.cpp\] text and 5)"};
    ASSERT_EQ(records.size(), 6u);
    for (std::size_t i = 0; i < std::size(expected); ++i)
        EXPECT_THAT(records[i], MatchesRegex(expected[i]));
    EXPECT_TRUE(records[5].ends_with(std::string("] ") + std::string(4095, 'x')));
}

TEST_F(LogFile, KindChoosesThePrefix) {
    const std::pair<int, const char*> kinds[] = {{1, "applog"}, {2, "rdrlog"}, {3, "schlog"}, {4, "qvllog"}};
    for (const auto& [kind, prefix] : kinds) {
        inFreshProcess([kind = kind] { logMessage(0, "m", 1, "f", static_cast<LogFileKind>(kind)); });
        EXPECT_EQ(lines(file(prefix + std::string("0000.txt"))).size(), 2u) << prefix;
    }
}

TEST_F(LogFile, PathIsTakenWithDriveAndBackslashes) {
    std::string foreign = "C:" + mLog + "\\x";
    std::replace(foreign.begin(), foreign.end(), '/', '\\');
    configure("LOGENABLE=1\n", foreign);
    inFreshProcess([] { say("m"); });
    EXPECT_EQ(lines(file("x/rdrlog0000.txt")).size(), 2u);

    configure("LOGENABLE=1\n", "rel\\ative");
    inFreshProcess([this] {
        fs::current_path(mInstall.path());
        say("m");
    });
    EXPECT_EQ(lines(mInstall / "rel/ative/rdrlog0000.txt").size(), 2u);
}

TEST_F(LogFile, FilesAndDirectoriesBelongToOwnerAndGroup) {
    inFreshProcess([] {
        ::umask(0);
        say("m");
    });
    for (const std::string& path : {mLog, file("rdrlog.dat"), file("rdrlog0000.txt")})
        EXPECT_EQ(fs::status(path).permissions() & fs::perms(0137), fs::perms(fs::is_directory(path) ? 0110 : 0))
            << path;
}

TEST_F(LogFile, RestartGoesOnOrKeepsAFullFileAsOld) {
    for (const char* message : {"one", "two"})
        inFreshProcess([&] { say(message); });
    std::vector<std::string> records = lines(file("rdrlog0000.txt"));
    ASSERT_EQ(records.size(), 3u);
    EXPECT_TRUE(isRecord(records[1], "one") && isRecord(records[2], "two"));

    plantFullFile("rdrlog0000.txt", kMaximumSize - 1);  // the next record fills it
    inFreshProcess([] { say("three"); });
    EXPECT_EQ(text("rdrlog.dat"), "1");
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:2 rdrlog0001.txt:1 ");

    writeFile(file("rdrlog0001.old"), "gone");
    plantFullFile("rdrlog0001.txt");
    inFreshProcess([] { say("four"); });
    EXPECT_EQ(text("rdrlog.dat"), "1");
    EXPECT_EQ(text("rdrlog0001.old").size(), kMaximumSize);
    EXPECT_EQ(lines(file("rdrlog0001.txt")).size(), 2u);
}

TEST_F(LogFile, MovesWhenExactlyFullAndWrapsBehind9999) {
    inFreshProcess([] { say(""); });
    const std::size_t empty = text("rdrlog0000.txt").size() - text("rdrlog0000.txt").find('\n') - 1;
    for (int missing : {1, 0}) {  // one byte below the boundary, then at it
        fs::remove_all(mLog);
        writeFile(file("rdrlog.dat"), "9999");
        writeFile(file("rdrlog0000.txt"), "earlier cycle\n");
        plantFullFile("rdrlog9999.txt", kMaximumSize - empty - static_cast<std::size_t>(missing));
        inFreshProcess([] { say(""); });
        EXPECT_EQ(text("rdrlog.dat"), missing ? "9999" : "0");
        EXPECT_EQ(text("rdrlog0000.old"), missing ? "" : "earlier cycle\n");
        EXPECT_EQ(text("rdrlog9999.txt").size(), kMaximumSize - static_cast<std::size_t>(missing));
    }
}

TEST_F(LogFile, BulkFillsFileAfterFileWithoutLosingALine) {
    constexpr int kRecords = 2900;
    inFreshProcess([] {
        for (int i = 0; i < kRecords; ++i)
            say(std::to_string(i) + ' ' + std::string(1000, 'x'));
    });
    EXPECT_EQ(text("rdrlog.dat"), "2");
    int next = 0;
    for (const char* name : {"rdrlog0000.txt", "rdrlog0001.txt", "rdrlog0002.txt"}) {
        const std::vector<std::string> records = lines(file(name));
        EXPECT_EQ(records.front()[0], '\t');
        for (std::size_t i = 1; i < records.size(); ++i)
            EXPECT_TRUE(isRecord(records[i], std::to_string(next++) + ' ' + std::string(1000, 'x')));
    }
    EXPECT_EQ(next, kRecords);
}

TEST_F(LogFile, SequenceFileIsTakenAsItStands) {
    const struct {
        std::string planted;
        const char* left;
        const char* name;
    } cases[] = {{"17", "17", "rdrlog0017.txt"},         {" +17x\n", " +17x\n", "rdrlog0017.txt"},
                 {"12345", "12345", "rdrlog12345.txt"},  {"", "0", "rdrlog0000.txt"},
                 {"text", "0", "rdrlog0000.txt"},        {"-5", "0", "rdrlog0000.txt"},
                 {"99999999999", "0", "rdrlog0000.txt"}, {std::string(1 << 20, ' '), "0", "rdrlog0000.txt"}};
    for (const auto& c : cases) {
        fs::remove_all(mLog);
        writeFile(file("rdrlog.dat"), c.planted);
        inFreshProcess([] { say("m"); });
        EXPECT_EQ(text("rdrlog.dat"), c.left);
        EXPECT_EQ(lines(file(c.name)).size(), 2u) << c.planted.substr(0, 20);
    }
}

TEST_F(LogFile, UnusableDirectoryDisturbsNobodyAndIsTriedAgain) {
    writeFile(mInstall / "a", "in the way");
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
    const std::vector<std::string> records = lines(file("rdrlog0000.txt"));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(isRecord(records[1], "found"));
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

TEST_F(LogFile, SizeLimitIsNoSignal) {
    inFreshProcess([] {
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        for (int i = 0; i < 100; ++i)
            say(std::string(100, 'x'));
    });
    EXPECT_LE(text("rdrlog0000.txt").size(), 4096u);
    EXPECT_GT(lines(file("rdrlog0000.txt")).size(), 20u);
}

TEST_F(LogFile, PlantedNamesAreNotWrittenThrough) {
    const std::string victim = mInstall / "victim";
    for (const char* name : {"rdrlog0000.txt", "rdrlog0000.old", "rdrlog.dat"}) {
        for (const bool isFifo : {false, true}) {
            fs::remove_all(mLog);
            fs::create_directories(mLog);
            writeFile(victim, "5");
            if (isFifo)
                ASSERT_EQ(::mkfifo(file(name).c_str(), 0600), 0);
            else
                fs::create_symlink(victim, file(name));
            inFreshProcess([] { say("m"); });
            EXPECT_EQ(readFile(victim), "5") << name;
            EXPECT_TRUE(isRecord(lines(file("rdrlog0000.txt")).at(1), "m")) << name;
        }
    }
}

TEST_F(LogFile, ThreadsKeepTheirLinesWhole) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 60;
    inFreshProcess([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < kRecords; ++i)
                    say(std::string(5000, static_cast<char>('a' + t)));
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    int count = 0;
    for (const char* name : {"rdrlog0000.txt", "rdrlog0001.txt", "rdrlog0002.txt"})
        for (const std::string& line : lines(file(name)))
            if (line[0] != '\t') {
                EXPECT_TRUE(isRecord(line, std::string(5000, line.back())));
                ++count;
            }
    EXPECT_EQ(count, kThreads * kRecords);
    EXPECT_EQ(text("rdrlog.dat"), "2");
}

TEST_F(LogFile, ProcessesShareADirectoryAndLoseNothing) {
    constexpr int kProcesses = 8;
    constexpr int kRecords = 400;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(startChild([p] {
            for (int i = 0; i < kRecords; ++i)
                say(LogText("%d %d %s", p, i, std::string(1500, 'x').c_str()).text());
        }));
    for (const pid_t child : children)
        expectChildSucceeds(child);

    std::set<std::string> seen;
    for (const auto& entry : fs::directory_iterator(mLog)) {
        if (entry.path().extension() == ".dat") continue;
        for (const std::string& line : lines(entry.path().string())) {
            if (line[0] == '\t') continue;
            const std::string message = line.substr(std::min<std::size_t>(line.find("cpp] ") + 5, line.size()));
            EXPECT_TRUE(isRecord(line, message) && message.ends_with(' ' + std::string(1500, 'x'))) << line;
            seen.insert(message);
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kRecords));
}

TEST_F(LogFile, NumberThatAnotherProcessMovedOnIsJoined) {
    inFreshProcess([this] {
        say("first");
        writeFile(file("rdrlog.dat"), "5");
        writeFile(file("rdrlog0005.txt"), "theirs\n");
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

TEST_F(LogFile, FirstCallSetsUpOnceForManyThreads) {
    inFreshProcess([] {
        std::atomic<bool> isOpen{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < 64; ++t)
            threads.emplace_back([&] {
                while (!isOpen)
                    std::this_thread::yield();
                say("m");
            });
        isOpen = true;
        for (std::thread& thread : threads)
            thread.join();
    });
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:65 ");
}

struct LateLogger {
    ~LateLogger() { say("late"); }
};

TEST_F(LogFile, StaticDestructorsMayLog) {
    for (const bool isFirstCall : {true, false}) {
        expectChildSucceeds(startChild([&] {
            static const LateLogger late;
            if (!isFirstCall) say("early");
            std::exit(0);
        }));
    }
    EXPECT_EQ(listing(), "rdrlog.dat:1 rdrlog0000.txt:4 ");
}

}  // namespace
