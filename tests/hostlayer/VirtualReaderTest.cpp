#include "Field.h"
#include "ReaderImpl.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <memory>
#include <thread>

namespace {

namespace fs = std::filesystem;
using qvl::Reason;
using qvl::VirtualReader;
using ::testing::HasSubstr;

/// A host that writes block 1 of the tag from classicImage().
struct Host : QVLReaderServiceIntf {
    void readerStateChanged(bool) override {}
    void readerMessage(int, const char*) override {}
    bool write() {
        std::uint8_t uid[] = {1, 2, 3, 4}, key[6] = {}, data[16] = {0xAB};
        int count = 0;
        OpResultCode* results = nullptr;
        const int status = adaptor->setBlockData(0, TagAppNone, TagUID(uid, 4, kTagStandard), 0, AuthKeyA, key, 1, 1,
                                                 data, 16, AuthKeyA, nullptr, nullptr, count, results);
        adaptor->freeMemory(results);
        return status == kOk;
    }
    const std::unique_ptr<ReaderImpl> adaptor{createAdaptorInstance(this)};
    const bool isReady = adaptor->initReader();
};

/// Of a 1K tag with keys of zeros and a wrong check byte.
std::string classicImage() { return ("\1\2\3\4" + std::string(1020, '\0')).replace(54, 3, "\xFF\x07\x80"); }

/// It leaves nothing behind, neither among the temporary files nor in the environment.
class AVirtualReader : public ::testing::Test {
  protected:
    AVirtualReader() {
        fs::create_directory(place / "tmp");
        place.write("data/conf/QVLReader.ini", "[READER]\nSERIAL_PORT=77\n[/READER]\n");
    }
    void TearDown() override {
        EXPECT_TRUE(fs::is_empty(place / "tmp"));
        EXPECT_STREQ(std::getenv("QVL_DEVICE_ROOT"), "/former");
        EXPECT_EQ(std::getenv("QVL_PATH"), place.path());
    }

    const TempDirectory place;
    const std::string image = place.write("classic.mfd", classicImage());
    const ScopedEnvironment tmp{"TMPDIR", (place / "tmp").c_str()}, path{"QVL_PATH", place.path().c_str()};
    const ScopedEnvironment root{"QVL_DEVICE_ROOT", "/former"};
};

TEST_F(AVirtualReader, IsFoundOnEitherLineAndKeepsWhatWasWritten) {
    for (const bool serialPort : {true, false}) {
        if (serialPort && isMf500UnderTest()) continue;
        auto options = readerWith({image});
        options.saveOnExit = options.serialPort = serialPort;
        place.write("classic.mfd", classicImage());
        VirtualReader reader(options);
        const std::string port = reader.root() + "/COM1";  // else it leads nowhere
        EXPECT_TRUE(fs::is_symlink(port) && fs::exists(port) == serialPort && !reader.fieldIsOn());
        Host host;
        EXPECT_TRUE(host.write() && reader.fieldIsOn());
        const std::string written = classicImage().replace(16, 1, "\xAB");
        const auto bytes = reader.image("tag1");
        EXPECT_TRUE(std::string(bytes.begin(), bytes.end()) == written);
        EXPECT_EQ(reader.end(), "");
        EXPECT_TRUE(place.read("classic.mfd") == (serialPort ? written : classicImage()));
    }
}

TEST_F(AVirtualReader, IsSteered) {
    VirtualReader reader(readerWith({"new:4k", image}));
    EXPECT_EQ(reader.place(image, "ok"), "ok");  // a name like an answer
    EXPECT_THAT(reader.remarks(), ::testing::ElementsAre(HasSubstr("byte 4"), HasSubstr("byte 4")));
    reader.takeAway("ok");
    reader.remove("tag1");
    reader.remove("tag2");
    const auto tags = reader.tags();
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0].name + tags[0].kind + tags[0].uid + tags[0].state + tags[0].source,
              "okClassic 1K01020304away" + image);
    reader.bringBack("ok");
    reader.unplug();
    EXPECT_FALSE(Host().isReady);
    reader.plugIn();
    reader.fault("any from 1 vanish before");
    EXPECT_FALSE(Host().isReady);
    reader.clearFaults();
    reader.plugIn();
    EXPECT_TRUE(Host().write());

    expectError(Reason::badArgument, "no tag \"none\"", [&] { reader.remove("none"); });
    expectError(Reason::badArgument, "one word", [&] { reader.save("", "ok"); });
    expectError(Reason::badArgument, "needs a name", [&] { reader.place("same as before.mfd"); });
    expectError(Reason::badArgument, "one line", [&] { reader.fault("any 1 late reply\nled"); });
    expectError(Reason::badArgument, "at most 4096", [&] { reader.command(std::string(4097, 'x')); });
    expectError(Reason::badArgument, "unknown command", [&] { reader.command(std::string(4096, 'x')); });
    EXPECT_THAT(reader.command("help"), HasSubstr("quit "));
}

TEST_F(AVirtualReader, SaysWhyItDoesNotStart) {
    VirtualReader::Options options{.model = VirtualReader::Model::mfRc500, .serialPort = true};
    expectError(Reason::badArgument, "no serial port", [&] { VirtualReader{options}; });
    options = readerWith({"new:6k"});
    expectError(Reason::badArgument, "\"6k\" is no kind of tag", [&] { VirtualReader{options}; });
    options.program = "/bin/true";
    expectError(Reason::noReader, "did not start", [&] { VirtualReader{options}; });
    options.program = place / "nothing";
    expectError(Reason::noReader, "nothing cannot be run: No such file", [&] { VirtualReader{options}; });
    const ScopedEnvironment nowhere("TMPDIR", "/nowhere");
    expectError(Reason::failed, "cannot be made", [&] { VirtualReader{options}; });
}

TEST_F(AVirtualReader, EndsOnceAndSaysWhatWentWrong) {
    auto options = readerWith();
    options.program =
        place.write("script", "#!/bin/sh\necho ready here\nread x\nprintf 'qvlreadersim: oh'\nkill -9 $$\n");
    fs::permissions(options.program, fs::perms::owner_all);
    VirtualReader reader(options);
    EXPECT_EQ(std::getenv("QVL_DEVICE_ROOT"), reader.root());
    expectError(Reason::readerLost, "by itself: ", [&] { reader.tags(); });
    EXPECT_THAT(reader.end(), HasSubstr("signal 9"));
    EXPECT_TRUE(reader.end().empty() && !fs::exists(reader.root()));
    expectError(Reason::noReader, "has been ended", [&] { reader.tags(); });
    EXPECT_EQ(VirtualReader(options).end(), "oh; qvlreadersim ended with signal 9");
}

TEST_F(AVirtualReader, TakesCommandsFromSeveralThreads) {
    VirtualReader reader(readerWith());
    const auto work = [&](const std::string& name) {
        for (int i = 0; i < 50; ++i, reader.remove(name))
            EXPECT_TRUE(reader.place(image, name) == name && reader.image(name).size() == 1024);
    };
    std::jthread other(work, "other");
    work("one");
}

}  // namespace
