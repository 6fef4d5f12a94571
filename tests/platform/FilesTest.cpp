// Files, and what others may have planted in their places.

#include "Files.h"
#include "PlatformTest.h"

#include <sys/resource.h>

namespace {

class FilesTest : public testing::Test {
  protected:
    std::string at(const char* name) const { return mDirectory / name; }

    TempDirectory mDirectory;
};

TEST_F(FilesTest, PlantedEntriesAreNotOpened) {
    mDirectory.write("victim", "untouched");
    fs::create_symlink("victim", at("link"));
    fs::create_symlink("new", at("dangling"));
    fs::create_hard_link(at("victim"), at("hardlink"));
    fs::create_directory(at("directory"));
    ::mkfifo(at("fifo").c_str(), 0600);
    for (const char* name : {"link", "dangling", "hardlink", "directory", "fifo", "absent/file"}) {
        AppendFile log;
        EXPECT_NE(log.open(at(name).c_str()), 0) << name;
        EXPECT_FALSE(log.isOpen() || log.append("x"));
        EXPECT_NE(writeTextFile(at(name).c_str(), "x"), 0) << name;
    }
    EXPECT_FALSE(pathExists(at("new").c_str()));
    EXPECT_EQ(mDirectory.read("victim"), "untouched");

    std::string text;
    std::uint64_t size = 0;
    for (const char* name : {"link", "dangling", "directory", "fifo", "absent"}) {
        EXPECT_FALSE(readTextFile(at(name).c_str(), text, 100, false)) << name;
        EXPECT_FALSE(regularFileSize(at(name).c_str(), size)) << name;
    }
    EXPECT_FALSE(readTextFile(at("fifo").c_str(), text, 100, true));
    EXPECT_TRUE(readTextFile(at("link").c_str(), text, 100, true));
    EXPECT_EQ(text, "untouched");
}

TEST_F(FilesTest, ReadsAndReplacesWholeFilesUpToTheLimit) {
    const std::string content = std::string(9000, 'a') + '\0' + std::string(999, 'b');
    const std::string file = mDirectory.write("file", content);
    std::string text;
    EXPECT_TRUE(readTextFile(file.c_str(), text, content.size(), false));
    EXPECT_EQ(text, content);
    EXPECT_FALSE(readTextFile(file.c_str(), text, content.size() - 1, false));
    EXPECT_EQ(text, "");
    std::uint64_t size = 0;
    EXPECT_TRUE(regularFileSize(file.c_str(), size));
    EXPECT_EQ(size, content.size());
    for (const char* replaced : {"short", "a longer text", ""}) {
        EXPECT_EQ(writeTextFile(file.c_str(), replaced), 0);
        EXPECT_EQ(mDirectory.read("file"), replaced);
    }
}

TEST_F(FilesTest, NewEntriesBelongToOwnerAndGroupAtMost) {
    const mode_t former = ::umask(0);
    EXPECT_EQ(AppendFile().open(at("log").c_str()), 0);
    EXPECT_EQ(writeTextFile(at("text").c_str(), ""), 0);
    for (const auto& [name, error] :
         {std::pair{"directory", 0}, {"directory", 0}, {"log", EEXIST}, {"absent/directory", ENOENT}})
        EXPECT_EQ(makeDirectory(at(name).c_str()), error) << name;
    ::umask(former);
    for (const auto& [name, mode] : {std::pair{"log", 0640}, {"text", 0640}, {"directory", 0750}})
        EXPECT_EQ(fs::status(at(name)).permissions(), fs::perms(mode)) << name;
}

TEST_F(FilesTest, AppendedFileIsFollowedThroughItsRenaming) {
    mDirectory.write("log", "old\n");
    AppendFile log, second;
    ASSERT_EQ(log.open(at("log").c_str()) + second.open(at("log").c_str()), 0);
    EXPECT_TRUE(log.append("one\n") && second.append("two\n") && log.append("three\n"));
    EXPECT_EQ(mDirectory.read("log"), "old\none\ntwo\nthree\n");
    EXPECT_EQ(log.size(), 18u);
    EXPECT_TRUE(renameFile(at("log").c_str(), at("log.1").c_str()));
    EXPECT_FALSE(log.isDeleted()) << "under another name it is still there";
    EXPECT_TRUE(removeFile(at("log.1").c_str()) && !removeFile(at("log.1").c_str()));
    EXPECT_TRUE(log.isDeleted());
    log.close();
    EXPECT_EQ(log.size(), 0u);
}

TEST_F(FilesTest, SizeLimitIsAFailureAndNeverASignal) {
    ForkedChild child([&] {
        const rlimit limit{10, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        AppendFile log;
        if (log.open(at("log").c_str()) != 0 || !log.append("123456789\n")) return 1;
        if (log.append("x") || log.append("y")) return 2;
        if (writeTextFile(at("text").c_str(), "more than ten bytes") == 0) return 3;
        sigset_t blocked, pending;
        ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
        ::sigpending(&pending);
        return sigismember(&blocked, SIGXFSZ) || sigismember(&pending, SIGXFSZ) ? 4 : 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(mDirectory.read("log"), "123456789\n");
}

}  // namespace
