// What all commands of the host program share: results in both forms, complaints, exit statuses, the virtual reader.

#include "QvltagFixture.h"

#include <fstream>

#include <sys/stat.h>

namespace {

TEST_F(QvltagTest, InfoShowsWhichReaderAnswers) {
    const bool isMf500 = isMf500UnderTest();
    const std::string model = isMf500 ? "MF RC500" : "PN531";
    const std::string firmware = isMf500 ? "MF RC500 2.1.3" : "NFC Reader/Writer 2.1.03 for VID 0x04CC PID 0x0531";
    const std::string id = isMf500 ? "2a000001" : "00172a000001";
    const Result text = run({"--virtual", "new:1k", "info"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out,
              "Reader    QVLMF500\nModel     " + model + "\nFirmware  " + firmware + "\nId        " + id + "\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(only(runJson({"--virtual", "new:1k", "info"}, 0)),
              Json({{"reader", "QVLMF500"}, {"model", model}, {"firmware", firmware}, {"id", id}}));
}

TEST_F(QvltagTest, LedBurnsWhileTheProgramStays) {
    // The library switches no lights of an MF RC500, and calls that a success.
    const bool hasLights = !isMf500UnderTest();
    const auto reader = plugReaderIn();
    const auto child = start({"led", "2", "on", "--duration", "5", "--for", "600"});
    EXPECT_EQ(child->line(), "LED 2 on");
    EXPECT_EQ(reader->ask("led"), hasLights ? "ok a5" : "ok 00");
    child->signalGroup(SIGINT);
    EXPECT_EQ(child->wait(), 0);
    EXPECT_EQ(reader->ask("led"), hasLights ? "ok c0" : "ok 00");
    EXPECT_EQ(only(runJson({"led", "0", "off"}, 0)), Json({{"led", 0}, {"on", false}, {"duration", 1}}));
    const Json refused = only(runJson({"led", "0", "on", "--duration", "0"}, 1));
    EXPECT_EQ(refused.value("error", "") + refused.value("meaning", "").substr(0, 8), "reader failedlight 0:");
    EXPECT_EQ(refused.value("status", 0), 3101);
}

TEST_F(QvltagTest, ComplaintsSayWhatIsWrongAndWhatToTry) {
    const std::tuple<Words, int, std::string, const char*, const char*> kMistakes[] = {
        {{"info"}, 3, "no reader", "no reader was found in", "--virtual new:1k"},
        {{}, 2, "usage", "subcommand is required", "qvltag --help"},
        {{"dance"}, 2, "usage", "unknown command or option \"dance\"", "qvltag --help"},
        {{"--dance", "info"}, 2, "usage", "not expected: --dance", "qvltag info --help"},
        {{"led", "4", "on"}, 2, "usage", "not in range 0 to 3", "qvltag led --help"},
        {{"led", "0", "green"}, 2, "usage", "green not in {on,off}", "qvltag led --help"},
        {{"poll", "--count"}, 2, "usage", "--count: 1 required", "qvltag poll --help"},
        {{"poll", "--once", "--for", "1"}, 2, "usage", "excludes", "qvltag poll --help"},
        {{"--no-wait", "--wait", "1", "info"}, 2, "usage", "excludes", "qvltag info --help"},
        {{"--save", "info"}, 2, "usage", "requires --virtual", "qvltag info --help"},
        {{"--reader", "mf500", "info"}, 2, "usage", "--reader requires --virtual", "qvltag info --help"},
        {{"--virtual", "new:1k", "--reader", "usb", "info"}, 2, "usage", "usb not in {tama,mf500}", "info --help"},
        {{"--virtual", "new:1k", "b.mfd", "info"}, 2, "usage", "not expected: b.mfd", "qvltag info --help"},
        {{"--virtual", "none.mfd", "info"}, 2, "no such tag", "none.mfd: there is no such file", "qvlreadersim(1)"},
        {{"--virtual", "-q", "info"}, 2, "no such tag", "-q: there is no such file", "qvlreadersim(1)"},
    };
    for (const auto& [arguments, status, name, meaning, advice] : kMistakes) {
        const Result text = run(arguments);
        EXPECT_EQ(text.status, status) << text.err;
        EXPECT_EQ(text.out, "");
        EXPECT_THAT(text.err, StartsWith("qvltag: " + name + ": "));
        EXPECT_THAT(text.err, HasSubstr(meaning));
        EXPECT_THAT(text.err, HasSubstr(advice));
        const Json object = only(runJson(arguments, status));
        EXPECT_EQ(object.value("error", ""), name);
        EXPECT_THAT(object.value("meaning", ""), HasSubstr(meaning));
        EXPECT_THAT(object.value("advice", ""), HasSubstr(advice));
        EXPECT_EQ(object.value("status", 0), status == 3 ? 3137 : 0);
    }
}

TEST_F(QvltagTest, RemarksOnImagesAreNoFailure) {
    const std::string image = place.write("odd\xFFname.mfd", std::string(1024, '\x01'));
    const Result text = run({"--virtual", image, "info"});
    EXPECT_EQ(text.status, 0);
    EXPECT_THAT(text.err, HasSubstr("warning: byte 4 of block 0"));
    const auto all = exactly(2, runJson({"--virtual", image, "info"}, 0));
    EXPECT_THAT(all[0].value("note", ""), HasSubstr("warning: byte 4 of block 0"));
    EXPECT_EQ(all[1].value("reader", ""), "QVLMF500");
}

TEST_F(QvltagTest, FindsTheVirtualReaderBesideItselfOrOnThePath) {
    const std::string alone = place / "alone";
    std::filesystem::copy_file(QVLTAG, alone);
    environment["PATH"] = place / "tmp";
    const Result missing = run({"--virtual", "new:1k", "info"}, alone);
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.err, StartsWith("qvltag: no virtual reader: the program qvlreadersim cannot be run: No such"));
    environment["PATH"] += ":" + std::filesystem::path(QVLREADERSIM).parent_path().string();
    EXPECT_EQ(run({"--virtual", "new:1k", "info"}, alone).status, 0);
    EXPECT_EQ(run({"--virtual", "new:1k", "info"}).status, 0);

    environment["TMPDIR"] = place / "none";
    const Result homeless = run({"--virtual", "new:1k", "info"});
    EXPECT_EQ(homeless.status, 3);
    EXPECT_THAT(homeless.err, HasSubstr("TMPDIR names the place"));
}

TEST_F(QvltagTest, ShowsTheDeviceThatTheHelperLibraryOfTheInstallationKnows) {
    std::filesystem::create_directories(place / "installed/bin");
    std::filesystem::copy_file(USBDLL, place / "installed/bin/libusbdll.so");
    const auto info = only(runJson({"--virtual", "new:1k", "info"}, 0));
    EXPECT_EQ(info.value("device", ""), isMf500UnderTest() ? "USB\\reader, 255 characters at most" : "");
}

TEST_F(QvltagTest, PromptsForNothingAfterCtrlC) {
    const auto reader = plugReaderIn();
    const std::string pipe = place / "key";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const auto child = start({"--wait", "1", "read", "4", "--key", "@" + pipe});
    std::ofstream key(pipe);  // opens when qvltag does
    child->signalGroup(SIGINT);
    key << "FFFFFFFFFFFF" << std::flush;
    key.close();
    EXPECT_THAT(child->rest(ChildProgram::errors), StartsWith("qvltag: cancelled"));
    EXPECT_EQ(child->wait(), 1);
}

TEST_F(QvltagTest, HelpAndVersionAreResults) {
    EXPECT_THAT(run({"--version"}).out, StartsWith("qvltag "));
    for (const Words& arguments : {Words{"--help"}, Words{"poll", "--help"}, Words{"led", "-h"}, Words{"info", "-h"}}) {
        const Result help = run(arguments);
        EXPECT_EQ(help.status, 0);
        EXPECT_THAT(help.out, HasSubstr("Usage: qvltag"));
        EXPECT_EQ(help.err, "");
    }
    EXPECT_THAT(run({"--help"}, QVLREADERSIM).out,
                AllOf(HasSubstr("  --com N  "), Not(AnyOf(HasSubstr(" in ["), HasSubstr("Excludes:")))));
}

}  // namespace
