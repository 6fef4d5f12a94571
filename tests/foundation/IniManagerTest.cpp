// Settings files.

#include "IniManager.h"
#include "FreshProcess.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <sys/stat.h>

namespace {

const std::string kNul(1, '\0');

class IniFile : public ::testing::Test {
  protected:
    IniFile() { mManager.setDirectoryAndReload(mDirectory.path().c_str()); }

    void load(const std::string& text, const char* name = "a.ini") {
        mDirectory.write(name, text);
        mManager.loadAndReplace(name);
    }
    std::string value(const char* section, const char* key) {
        const char* text = mManager.value(section, key);
        return text ? text : "(null)";
    }

    TempDirectory mDirectory;
    IniManager mManager;
};

TEST_F(IniFile, EveryLineMeansWhatItSays) {
    const std::tuple<std::string, const char*, const char*, const char*> cases[] = {
        {"[S]\nK=v\n[/S]\n", "S", "K", "v"},
        {"[S]\r\nK=v\r\n[/S]\r\n", "S", "K", "v"},
        {"  [S]x\n  K = v w  \n[/S]", "S", "K", "v w"},
        {"[S]\nK=\n", "S", "K", ""},
        {"[S]\n=v\n", "S", "", "v"},
        {"[S]\nA=b = c\n", "S", "A", "b = c"},
        {"[S]\n\tK=v\t\n", "S", "\tK", "v\t"},
        {"[S]\n//K=1\n", "S", "//K", "(null)"},
        {"[S]\n  //K=1\n", "S", "K", "(null)"},
        {"[S]\n/K=1\n", "S", "/K", "1"},
        {"[S]\n[A=B]\nK=1\n", "S", "[A", "B]"},
        {"[S]\nrubbish\n[rubbish\n[/S\nK=1\n", "S", "K", "1"},  // what cannot be read is passed over
        {"[S]\nA=1\n[/S]\n[S]\nA=2\nB=3\n[/S]\n", "S", "A", "1"},
        {"[S]\nA=1\n[/S]\n[S]\nA=2\nB=3\n[/S]\n", "S", "B", "(null)"},
        {"[S]\nK=1\n", "s", "K", "(null)"},
        {"[S]\nK=1\n[/S]\nL=2\n", "S", "L", "(null)"},
        {"[S]\n[T]\nK=1\n[/T]\nL=2\n[/S]\n", "S", "L", "2"},
        {"[S]\n[T]\nK=1\n[/T]\nL=2\n[/S]\n", "S", "K", "(null)"},
        {"[S]\n[T]\nK=1\n[/T]\n[/S]\n", "S", "T", "(null)"},
        {"[/S]\nK=1\n[//S]\n", "/S", "K", "1"},  // nothing to close: a section of that name
        {"K=1\n[S]\n", "S", "K", "(null)"},
        {"K=1", "K", "", "(null)"},
        {"[]\nK=1", "", "K", "1"},
        {"[S]\nK=1\r2\n", "S", "K", "1"},
        {"[S]\nK=1" + kNul + "2\nL=3", "S", "K", "1"},  // the rest of a piece after a NUL is lost
        {"[S]\nK=1" + kNul + "2\nL=3", "S", "L", "3"},
        {"[S]\n" + kNul + "K=1\n", "S", "K", "(null)"},
        // Pieces of 255 characters count as lines.
        {"[S]\nK=" + std::string(253, 'v') + "L=w\n", "S", "L", "w"},
        {"[S]\nK=" + std::string(252, 'v') + "L=w\n", "S", "=w", "(null)"},
        {"[S]\n//" + std::string(253, '/') + "L=w\n", "S", "L", "w"},
        {"[S]\n" + std::string(255, ' ') + "\nL=w\n", "S", "L", "w"},
        {std::string(1 << 20, 'x') + "\n[S]\nK=1", "S", "K", "1"},
    };
    for (const auto& [text, section, key, expected] : cases) {
        load(text);
        EXPECT_EQ(value(section, key), expected) << text.substr(0, 80) << " -> " << key;
    }
}

TEST_F(IniFile, WrongClosingLineIsReportedAndCloses) {
    ::testing::internal::CaptureStdout();
    load("\n[A]\nK=1\n[B]\n[/A]\nL=2\n[/a]\nM=3\n[C]\n[/C]\n" + std::string(600, 'x') + "\n[D]\n[/]\n[E]\n[/E]\n");
    const std::string place = " in file " + mDirectory.path() + "/a.ini\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "parsing error at line # 5" + place +
                                                            "parsing error at line # 7" + place +
                                                            "parsing error at line # 15" + place);
    EXPECT_EQ(value("A", "L"), "2");
    EXPECT_EQ(value("A", "M"), "(null)");
}

TEST_F(IniFile, LookupWalksTheTree) {
    load("[S]\nK=1\n[T]\nL=2\n[/T]\n[/S]\n");
    const IniNode* root = mManager.root();
    const IniEntry section = mManager.lookup(root, "S");
    EXPECT_EQ(section.type, INI_TABLE);
    EXPECT_EQ(section.text, nullptr);
    EXPECT_STREQ(mManager.lookup(mManager.lookup(section.node, "T").node, "L").text, "2");
    const IniEntry key = mManager.lookup(section.node, "K");
    EXPECT_EQ(key.type, INI_VALUE);
    EXPECT_EQ(key.node, nullptr);
    IniNode leaf;
    for (const IniEntry& none : {mManager.lookup(nullptr, "S"), mManager.lookup(root, "X"),
                                 mManager.lookup(root, nullptr), mManager.lookup(&leaf, "K")}) {
        EXPECT_EQ(none.type, INI_NOT_FOUND);
        EXPECT_TRUE(none.text == nullptr && none.node == nullptr);
    }
}

TEST_F(IniFile, NamesOfOneBucketStayDistinct) {
    const std::string name(32, 'n');
    EXPECT_EQ(IniTable::hash((name + "1").c_str()), IniTable::hash((name + "2").c_str()));
    EXPECT_EQ(IniTable::hash("\xFF\xFF\xFF\xFF\x02"), 1u) << "bytes above 127 do not count as negative";
    load("[S]\n" + name + "1=a\n" + name + "2=b\n");
    EXPECT_EQ(value("S", (name + "2").c_str()), "b");
}

TEST_F(IniFile, ReloadsReplaceOrMerge) {
    load("[S]\nK=1\n");
    mDirectory.write("b.ini", "[S]\nK=2\n[/S]\n[T]\nK=3\n");
    mManager.loadAndMerge("b.ini");
    EXPECT_EQ(value("S", "K") + value("T", "K"), "13");
    mManager.loadAndReplace("b.ini");
    EXPECT_EQ(value("S", "K"), "2");
    mDirectory.write("other/b.ini", "[S]\nK=4\n");
    mManager.setDirectoryAndReload((mDirectory / "other").c_str());
    EXPECT_EQ(value("S", "K") + value("T", "K"), "4(null)");
    mManager.loadAndReplace(nullptr);
    mManager.loadAndMerge(nullptr);
    mManager.setDirectoryAndReload(nullptr);
    EXPECT_EQ(value("S", "K"), "4");
    mManager.loadAndReplace("absent.ini");
    EXPECT_EQ(value("S", "K"), "(null)");
}

TEST_F(IniFile, FirstLookupTakesTheStandardName) {
    mDirectory.write("QVLReader.ini", "[S]\nK=1\n");
    EXPECT_STREQ(mManager.lookup(mManager.root(), "S").node->table->find("K")->text.c_str(), "1");
    mDirectory.write("QVLReader.ini", "[S]\nK=2\n");
    EXPECT_EQ(value("S", "K"), "1");  // once
}

TEST_F(IniFile, OnlyARegularFileIsRead) {
    ASSERT_EQ(::mkfifo((mDirectory / "fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(mDirectory / "folder");
    mDirectory.write("real.ini", "[S]\nK=1\n");
    std::filesystem::create_symlink("real.ini", mDirectory / "link.ini");
    for (const char* name : {"fifo", "folder", "link.ini"}) {
        mManager.loadAndReplace(name);
        EXPECT_EQ(value("S", "K"), std::string(name) == "link.ini" ? "1" : "(null)") << name;
    }
}

TEST_F(IniFile, PathHasAtMost255Characters) {
    const std::string folder = mDirectory / std::string(180, 'd');
    for (std::size_t length : {255u, 256u}) {
        const std::string name(length - folder.size() - 1, 'n');
        mDirectory.write(std::string(180, 'd') + '/' + name, "[S]\nK=1\n");
        mManager.setDirectoryAndReload(folder.c_str());
        mManager.loadAndReplace(name.c_str());
        EXPECT_EQ(value("S", "K"), length == 255 ? "1" : "(null)");
    }
}

TEST_F(IniFile, SizeAndDepthCostNoStackAndLittleTime) {
    constexpr int kMany = 8192;
    std::string text;
    for (int i = 0; i < kMany; ++i)
        text += "[s]\n";
    load(text + "K=1\n");
    const IniNode* node = mManager.root();
    int depth = 0;
    for (; const IniNode* inner = node->table->find("s"); ++depth)
        node = inner;
    EXPECT_EQ(depth, kMany);
    EXPECT_STREQ(mManager.lookup(node, "K").text, "1");

    text += "[S]\n[/S]\n";
    ::testing::internal::CaptureStdout();
    mDirectory.write("vast.ini", text);
    mManager.loadAndMerge("vast.ini");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "too many sections in file " + mDirectory.path() + "/vast.ini, which is not used\n");
    EXPECT_EQ(value("S", "K"), "(null)") << "refused as a whole";
    EXPECT_NE(mManager.root()->table->find("s"), nullptr) << "and what was there stays";

    text = "[S]\n";
    for (int i = 0; i < 1'000'000; ++i)
        text += "K=1\n";  // all in one bucket
    load(text + "L=2\n");
    EXPECT_EQ(value("S", "L"), "2");
}

TEST(IniInstance, IsFoundByTheInstallationPath) {
    inFreshProcess([] {
        TempDirectory install;
        install.write("data/conf/QVLReader.ini", "[S]\nK=1\n");
        ::setenv("QVL_PATH", install.path().c_str(), 1);
        EXPECT_EQ(getIniRoot()->table->find("S"), nullptr);  // does not load
        EXPECT_STREQ(iniGetValue("S", "K"), "1");
        EXPECT_EQ(iniLookup(getIniRoot(), "S").type, INI_TABLE);
        ::setenv("QVL_PATH", "/elsewhere", 1);
        EXPECT_STREQ(getInstallPath(), install.path().c_str());
    });
    inFreshProcess([] {
        ::setenv("QVL_PATH", std::string(300, 'p').c_str(), 1);
        EXPECT_EQ(getInstallPath(), std::string(259, 'p'));
        EXPECT_EQ(iniGetValue("S", "K"), nullptr);
    });
}

TEST(IniInstance, IsFoundInTheWorkingDirectoryWithoutAnInstallation) {
    if (std::filesystem::exists("/etc/qvlreader/2.1/QVL_PATH")) GTEST_SKIP() << "the product is installed here";
    TempDirectory directory;
    directory.write("QVLReader.ini", "[S]\nK=1\n");
    inFreshProcess([&] {
        ::unsetenv("QVL_PATH");
        std::filesystem::current_path(directory.path());
        EXPECT_STREQ(iniGetValue("S", "K"), "1");
        EXPECT_EQ(getInstallPath(), nullptr);
    });
}

TEST(IniInstance, LoadsOnceHoweverManyThreadsAsk) {
    TempDirectory install;
    install.write("data/conf/QVLReader.ini", "[S]\nK=1\n[/T]\n");
    ::testing::internal::CaptureStdout();
    inFreshProcess([&] {
        ::setenv("QVL_PATH", install.path().c_str(), 1);
        std::atomic<int> found{0};
        inThreadsAtOnce(64, [&](int) {
            const char* text = iniGetValue("S", "K");
            found += text != nullptr && std::string(text) == "1";
        });
        EXPECT_EQ(found, 64);
        std::fflush(stdout);
    });
    const std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
}

TEST(IniNumber, LeadingDigitsCountAndSaturate) {
    for (const char* none : {"", "x7", "-1", "+1", " 1", static_cast<const char*>(nullptr)})
        EXPECT_EQ(iniNumber(none), 0u);
    EXPECT_EQ(iniNumber("007x9"), 7u);
    for (const char* most : {"4294967295", "4294967296", "1000000000000000000000000"})
        EXPECT_EQ(iniNumber(most), 4294967295u);
}

}  // namespace
