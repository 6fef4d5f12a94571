// The commands on tag memory: command lines, what they say, and what they leave in the image of the tag.

#include "QvltagFixture.h"

#include <regex>

namespace {

const std::string kMaster = "4D4153544552";  // key B after formatting
const std::string kDoorA = "446f6f724131", kDoorB = "446f6f724231";
const std::string kByA = " --key " + kDoorA, kByB = " --key " + kDoorB + " --key-type b";
const std::string kBoth = " --key-a " + kDoorA + " --key-b " + kDoorB, kMad = " --mad-key-b " + kMaster;
const std::string kNewKeys = " --new-key-a " + kDoorA + " --new-key-b " + kDoorB;

struct Step {
    std::string line;  // words; what is quoted in "" is one
    int status;
    std::string expected;  // on standard output after success, else in the complaint
};

class TagMemoryTest : public QvltagTest {
  protected:
    /// On the tag in `image`, which keeps what changes.
    Words onTag(const std::string& line) { return joined({"--no-wait", "--virtual", image, "--save"}, wordsOf(line)); }
    void follow(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE(step.line);
            const Result result = run(onTag(step.line));
            EXPECT_EQ(result.status, step.status) << result.err;
            EXPECT_THAT(step.status == 0 ? result.out : result.err, HasSubstr(step.expected));
            EXPECT_EQ(result.err.empty(), step.status == 0);
            for (const std::string& key : {kMaster, kDoorA, kDoorB})
                EXPECT_EQ((result.out + result.err).find(key), std::string::npos) << "a key was shown";
        }
    }
    /// Makes `image` from a tag as delivered, by the program itself.
    void deliver(const std::string& kind, const std::string& name) {
        image = place / name;
        EXPECT_EQ(run({"--no-wait", "--virtual", "new:" + kind, "dump", image}).status, 0);
    }
    void formatWithApp() {
        deliver("1k:01020304", "tag.mfd");
        follow({{"format --new-key-b " + kMaster, 0, "formatted: 01020304, Mifare Standard"},
                {"app init 4711 2" + kMad + kNewKeys, 0, "application 4711 now has sectors 1-2"}});
    }
    std::string bytes(std::size_t block, std::size_t size = 16) {
        std::string hex;
        for (const char c : place.read(std::filesystem::path(image).filename()).substr(block * size, size)) {
            constexpr const char* kDigits = "0123456789abcdef";
            hex += {kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 0x0F]};
        }
        return hex;
    }

    std::string image;
};

TEST_F(TagMemoryTest, TheDemonstrationEndsWhereItBegan) {
    const Result result = run({"--reader", readerUnderTest(), QVLTAG}, TAG_MEMORY_DEMO);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("The image is that of the start, byte for byte."));
}

TEST_F(TagMemoryTest, BlocksAreReadAndWritten) {
    deliver("1k:01020304", "tag.mfd");
    const std::string file = place.write("data", std::string(40, 'x'));
    const std::string copy = place / "copy";
    follow({{"write 1 \"00112233 44:55\"", 0, "block 1 written"},
            {"write 2 --file " + file, 0, "blocks 2, 4-5 written"},
            {"write 8 --text \"Door 17\" --count 2", 0, "blocks 8-9 written"},
            {"read 1", 0, "1  00112233445500000000000000000000  ..\"3DU.........."},
            {"read 8", 0, "8  446f6f72203137000000000000000000  Door 17........."},
            {"read 2 3 --file " + copy, 0, copy + ": 48 bytes"},
            {"read 62 all", 0, "62  00000000"},
            {"read 3", 1, "reserved block"},
            {"write 7 00", 1, "reserved block"},
            {"read 60 5", 1, "out of range"},
            {"write 4 --file " + file + " --count 2", 1, "data too long"},
            {"read 4 3 --key 000000000001", 1, "key refused: block 4: the tag did not accept the key (status 3102)"},
            {"write 4 00 --key-type B", 1, "block not written: block 4: a block could not be written (status 3133)"}});
    EXPECT_EQ(place.read("copy"), std::string(40, 'x') + std::string(8, '\0'));
    EXPECT_EQ(bytes(5), "7878787878787878" + std::string(16, '0'));
}

TEST_F(TagMemoryTest, PartialSuccessIsToldBlockByBlock) {
    formatWithApp();
    const auto all = exactly(5, runJson(onTag("read 2 3 --key mad"), 1));
    EXPECT_EQ(all[0], Json({{"block", 2}, {"data", std::string(32, '0')}}));
    EXPECT_EQ(all[1], Json({{"block", 2}, {"status", 3100}}));
    EXPECT_EQ(all[3], Json({{"block", 5}, {"status", 3102}, {"error", "key refused"}, {"reason", "wrong key"}}));
    EXPECT_EQ(all[4].value("status", 0), 3132);
    const Result text = run(onTag("read 2 3 --key mad --file " + (place / "never")));
    EXPECT_THAT(text.out, HasSubstr("block  result\n2      done\n4      key refused (3102)\n"));
    EXPECT_FALSE(std::filesystem::exists(place / "never"));
}

TEST_F(TagMemoryTest, ApplicationsComeAndGo) {
    formatWithApp();
    follow({{"app init 0x4711 1" + kMad + kNewKeys, 1, "application exists: application 4711: "},
            {"app init 4712 14" + kMad + kNewKeys, 1, "too few"},
            {"app init 4712 1 --mad-key-b " + kDoorB + kNewKeys, 1, "directory not read"},
            {"app init 4712 1 --access value" + kMad + kNewKeys, 0, "now has sector 3"},
            {"app add 4711 1" + kMad + kNewKeys, 0, "application 4711 now has sector 4"},
            {"app add 4713 1" + kMad + kNewKeys, 1, "no tag with the application"},
            {"app ls", 0, "4711  sectors 1-2, 4  144 bytes\n4712  sector 3        48 bytes\nfree  sectors 5-15"},
            {"ls --apps", 0, "01020304  Mifare Standard  1024 bytes, 64 blocks in 16 sectors  4711 4712"},
            {"ls --app 4713", 1, "no tag with the application"},
            {"app write 4711 a1b2 --fill " + std::string(32, '7') + kByB, 0, "2 bytes written, 9 blocks in all"},
            {"write 8 ff --app 4711" + kByB, 0, "block 0 written"},
            {"read 7 all --app 4711" + kByA, 0, "0  77777777777777777777777777777777  wwwwwwwwwwwwwwww\n1  ff"},
            {"app read 4711" + kByA, 0, "0  a1b27777"},
            {"app remove 4711 --from 1 --count 1" + kMad + kByB, 0, "application 4711: 1 sector removed"},
            {"app remove 4711 --from 2 --count 1" + kMad + kByB, 1, "out of range"},
            {"app reset 4711 3" + kMad + kByB, 1, "too few"},
            {"app reset 4711 2" + kMad + " --key " + kMaster, 1, "key refused: application 4711, position 0"},
            {"app ls", 0, "4711  sectors 1, 4 "}});
    const auto all = exactly(3, runJson(onTag("app ls"), 0));
    EXPECT_EQ(all[1], Json({{"app", "4712"}, {"sectors", {3}}}));
    EXPECT_EQ(all[2]["defect"], Json::array());
    EXPECT_EQ(bytes(8), std::string(32, '0')) << "removed sectors are zeroed";
    EXPECT_EQ(bytes(11), "a0a1a2a3a4a5787788694d4153544552");
    EXPECT_EQ(bytes(15), kDoorA + "08778f69" + kDoorB);
}

TEST_F(TagMemoryTest, ValuesCountUpAndDown) {
    formatWithApp();
    const std::string app = " --app 4711", both = app + kBoth, byA = app + kByA, byB = app + kByB;
    follow({{"value get 1" + byA, 1, "no value block: application 4711, block 1"},
            {"value init 1 -5" + both, 0, "block 1 is a value block of -5"},
            {"value get 1" + byA, 0, "-5"},
            {"value inc 1 12" + byB, 0, "12 added to block 1"},
            {"value set 2 1" + byB, 1, "no value block"},
            {"value init 2 0" + both, 0, "block 2 is a value block of 0"},
            {"value dec 1 4 --to 2" + byA, 0, "block 2 is block 1 less 4"},
            {"value get 2" + byA, 0, "3"},
            {"value get 1" + byA, 0, "7"},
            {"value set 1 2147483647" + byB, 0, "block 1 is 2147483647"},
            {"value inc 1 1" + byA, 1, "value failed"},
            {"value init 3 9 --decrement-only" + both, 0, "9, which can only be decremented"},
            {"value inc 3 1" + byB, 1, "value failed"},
            {"value dec 3 1" + byA, 0, "1 taken from block 3"},
            {"value get 9" + byA, 1, "block 9: "}});
    EXPECT_EQ(only(runJson(onTag("value get 3" + byA), 0)), Json({{"block", 3}, {"value", 8}}));
    EXPECT_EQ(bytes(8).substr(24), "08f708f7") << "with the address of the block on the tag";
}

TEST_F(TagMemoryTest, AccessIsShownInWordsAndChanged) {
    formatWithApp();
    follow({{"access block 1 read-only --app 4711" + kBoth, 0, "block 1 is cleared and read-only (010)"},
            {"access block 6 only-b" + kBoth, 0, "block 6 is cleared and only-b (011)"},
            {"access show 0 --app 4711" + kByA, 0,
             "Position 0        read    write   increment  decrement\n"
             "block 0      100  A or B  B       nobody     nobody     write-b\n"
             "block 1      010  A or B  nobody  nobody     nobody     read-only\n"
             "block 2      011  B       B       nobody     nobody     only-b\n"
             "key A        011  nobody  B\n"
             "access bits       A or B  B\n"
             "key B             nobody  B\n"},
            {"read 6" + kByA, 1, "block not read"},
            {"access show --app 4711" + kByA, 0, "Position 1"},
            {"access show 2 --app 4711" + kByA, 1, "out of range: application 4711, sector 2"},
            {"access set 1 factory" + kBoth, 0, "sector 1: factory"},
            {"access show 1" + kByA, 0, "block 4      000  A       A      A          A          open"},
            {"access show 1" + kByA, 0, "Key B can be read here, and so it opens nothing."},
            {"access set formatted --app 4711 --key-type b" + kBoth, 1, "partial success"},
            {"access set 1 formatted" + kBoth, 0, "sector 1: formatted"},
            {"key set 1 --count 2" + kByB + " --new-key-a mad --new-key-b " + kMaster, 0, "sectors 1-2: new keys"},
            {"key set 15 --count 2 --new-key-a mad --new-key-b mad", 1, "too few"},
            {"access show 16", 1, "sector 16: "}});
    EXPECT_EQ(bytes(7), "a0a1a2a3a4a5787788694d4153544552");
    const Json all = only(runJson(onTag("access show --key factory"), 1));
    EXPECT_EQ(all.value("where", ""), "sectors 0-15") << "one complaint for all";
    EXPECT_EQ(all.value("error", ""), "trailer not read");
}

TEST_F(TagMemoryTest, DumpAndRestoreCarryATagToAnother) {
    formatWithApp();
    const std::string keys = place.write("known.keys", "# all of them\n" + kDoorA + "  # door\n\n" + kDoorB +
                                                           "\r\nA0A1A2A3A4A5\n" + kMaster);
    follow({{"app write 4711 --text Door" + kByB, 0, "bytes written"}});
    const std::string other = place / "copy.mfd", before = place.read("tag.mfd");
    const Json report = only(runJson(onTag("dump " + other + " --keys " + keys), 0));
    EXPECT_EQ(report["read"].size(), 48u);
    EXPECT_EQ(report["composed"].size(), 16u);
    EXPECT_EQ(report["missing"], Json::array());
    EXPECT_EQ(place.read("copy.mfd"), before);
    EXPECT_EQ(std::filesystem::status(other).permissions() & std::filesystem::perms::others_all,
              std::filesystem::perms::none);

    const auto partly = exactly(2, runJson(onTag("dump " + (place / "partly.mfd") + " --key mad"), 1));
    EXPECT_EQ(partly[0]["missing"].size(), 8u + 14u) << "the application, and the trailers without their key B";
    EXPECT_EQ(partly[1].value("error", ""), "incomplete");

    deliver("1k:0A0B0C0D", "second.mfd");
    const std::string delivered = place.read("second.mfd");
    const auto restored = exactly(3, runJson(onTag("restore " + other + " --trailers"), 1));
    EXPECT_EQ(restored[0]["written"].size(), 47u + 15u);
    EXPECT_EQ(restored[1],
              Json({{"block", 3}, {"status", 3127}, {"error", "access refused"}, {"reason", "not permitted"}}));
    EXPECT_EQ(place.read("second.mfd").substr(64), before.substr(64));
    EXPECT_EQ(place.read("second.mfd").substr(0, 16), delivered.substr(0, 16));

    follow({{"restore " + (place / "partly.mfd") + " --trailers --keys " + other, 1, "block not written"},
            {"restore " + other + " --key factory --keys " + other, 0, "0a0b0c0d: blocks 1-2, 4-6, 8-10, "},
            {"restore " + other + " --key 000000000001", 1, "block not written"}});
    EXPECT_EQ(place.read("second.mfd").substr(64), before.substr(64));
    follow({{"dump " + (place / "none/tag.mfd") + " --keys " + other, 1, "cannot be written: No such file"}});
    image = place.write("light.bin", "\x04\x21\x32\x9F\x43\x54\x65\x76\x04" + std::string(55, '\0'));
    follow(
        {{"restore " + other, 1, "bad argument: the image has 1024 bytes, and this tag, Mifare Ultralight, has 64"}});
}

TEST_F(TagMemoryTest, OtherKindsOfTags) {
    deliver("4k:01020304", "big.mfd");
    const std::string start = place.read("big.mfd"), copy = place / "copy.mfd";
    follow({{"format --mad 1 --new-key-b " + kMaster, 1, "not allowed here"},
            {"format --mad none --new-key-b " + kMaster, 0, "formatted: 01020304, Mifare 4K"},
            {"write 142 --text ab --count 2 --key-type b --key " + kMaster, 0, "blocks 142, 144 written"},
            {"access show 39", 0, "blocks 245-249  100  A or B  B      nobody"},
            {"dump " + copy + " --key factory --key-b " + kMaster, 0, "Read      216 blocks"},
            {"write 142 00 --count 2 --key-type b --key " + kMaster, 0, "blocks 142, 144 written"},
            {"unformat --mad none --key-b " + kMaster, 0, "unformatted: 01020304"}});
    EXPECT_EQ(place.read("copy.mfd").substr(142 * 16, 2), "ab");
    EXPECT_EQ(bytes(255), bytes(3));
    EXPECT_EQ(bytes(142), bytes(144));

    deliver("ultralight:04112233445566", "light.bin");
    follow({{"write 4 --text hello", 0, "blocks 4-5 written"},
            {"read 4 all", 0, "4   68656c6c  hell\n5   6f000000  o..."},
            {"restore " + image, 0, "04112233445566: blocks 4-15 written"},
            {"access show", 1, "no trailers"},
            {"write 1 00", 1, "reserved block"},
            {"read 14 4", 1, "out of range"}});
    EXPECT_EQ(bytes(0, 8), "041122bf33445566");
}

TEST_F(TagMemoryTest, ATagIsChosenAmongSeveral) {
    formatWithApp();
    const auto inField = [&](const std::string& line) {
        return joined({"--no-wait", "--virtual", "new:1k:03AABBCC", "--virtual", image}, wordsOf(line));
    };
    EXPECT_EQ(run(inField("ls")).out, "03aabbcc  Mifare Standard  1024 bytes, 64 blocks in 16 sectors\n"
                                      "01020304  Mifare Standard  1024 bytes, 64 blocks in 16 sectors\n");
    const auto all = exactly(2, runJson(inField("ls --apps"), 1));
    EXPECT_EQ(all[0].value("error", ""), "directory not read");
    EXPECT_EQ(all[1]["apps"], Json({"4711"}));
    EXPECT_EQ(only(runJson(inField("ls --app 4711"), 0)).value("uid", ""), "01020304");
    EXPECT_THAT(run(inField("read 0")).out, StartsWith("0  03aabbcc"));
    EXPECT_THAT(run(inField("read 0 --uid 01:02:03:04 --key mad")).out, StartsWith("0  01020304"));
    EXPECT_THAT(run(inField("app read 4711" + kByA)).out, StartsWith("0  0000"));
    EXPECT_EQ(only(runJson(inField("read 0 --uid 01020305"), 1)).value("meaning", ""), "the tag 01020305 did not come");
    EXPECT_THAT(run(inField("format --uid 03aabbcc --new-key-b mad")).err, HasSubstr("is not the only one"));

    const auto reader = plugReaderIn();
    EXPECT_EQ(only(runJson({"--no-wait", "ls"}, 1)).value("error", ""), "no tag");
    EXPECT_EQ(only(runJson({"--wait", "0.01", "ls"}, 1)).value("error", ""), "wait over");
    const auto child = start({"read", "0"});
    EXPECT_THAT(child->line(ChildProgram::errors), HasSubstr("Hold a tag to the reader"));
    EXPECT_EQ(reader->ask("place new:1k"), "ok tag1");
    EXPECT_THAT(child->rest(), StartsWith("0  deadbeef"));
    EXPECT_EQ(child->wait(), 0);
}

TEST_F(TagMemoryTest, ATagThatLeavesInTheMiddleIsNoHalfImage) {
    const std::string file = place / "half.mfd";
    const std::string fault = isMf500UnderTest() ? "fault 19 20 tag gone" : "fault 40 20 tag gone";
    for (const bool waits : {false, true}) {
        const auto reader = plugReaderIn();
        EXPECT_EQ(reader->ask("place new:1k"), "ok tag1");
        EXPECT_EQ(reader->ask(fault), "ok");
        const auto child = start({waits ? "--json" : "--no-wait", "dump", file});
        if (waits) {
            EXPECT_FALSE(child->allGone(500)) << "it must wait for the tag";
            child->signalGroup(SIGINT);
        }
        EXPECT_THAT(child->rest(waits ? ChildProgram::output : ChildProgram::errors),
                    HasSubstr(waits ? "{\"error\":\"cancelled\",\"reason\":\"cancelled\""
                                    : "qvltag: lost: the tag deadbeef left"));
        EXPECT_EQ(child->wait(), 1);
        EXPECT_FALSE(std::filesystem::exists(file));
    }
}

TEST_F(TagMemoryTest, KeysStayOffTheCommandLine) {
    formatWithApp();
    environment["DOOR_KEY"] = kDoorA;
    const std::string file = place.write("door.key", kDoorA + " \r\nmore\n");
    follow({{"app read 4711 --key @" + file, 0, "0  0000"},
            {"app read 4711 --key env:DOOR_KEY", 0, "0  0000"},
            {"read 0 --key mad", 0, "0  01020304"},
            {"read 0 --key @" + (place / "none"), 2, "none cannot be read: No such file"},
            {"read 0 --key env:NO_KEY", 2, "the environment variable NO_KEY is not set"},
            {"read 0 --kye " + kMaster, 2, "not expected: --kye"},
            {"led 0 on " + kMaster, 2, "(hexadecimal digits)"},
            {"read 0 --key " + kMaster + "F", 2, "this has 13 characters"}});
}

TEST_F(TagMemoryTest, WrongLinesAreRefusedBeforeAReaderIsTouched) {
    const std::string big = place.write("big", std::string(4097, 'x'));
    const std::string odd = place.write("odd.keys", "FFFFFFFFFFFF\nFFFF\n");
    const std::string newKeys = " --new-key-a mad --new-key-b mad", both = " --key-a mad --key-b mad";
    const std::pair<const char*, std::vector<std::string>> kMistakes[] = {
        {"is required", {"read", "dump", "format", "unformat", "app", "app init 4711 1" + newKeys}},
        {"not in range",
         {"read 256", "app init 4711 16 --mad-key-b mad" + newKeys, "value set 4 2147483648", "value inc 4 0",
          "access show 40"}},
        {"a number of blocks is 1 to 256, or \"all\"", {"read 4 0"}},
        {"--key: a key is 12 hexadecimal digits", {"read 4 --key 0102"}},
        {"--key-type", {"read 4 --key-type c"}},
        {"--uid: a UID is up to 10 bytes", {"read 4 --uid 0g"}},
        {"from 6 to FFFF", {"read 4 --app 5", "app reset 10000 1 --mad-key-b mad --key mad"}},
        {"requires --mad-key", {"read 4 --mad-key-type b"}},
        {"give the data as HEX, with --text or with --file", {"write 4", "write 4 00 --text x"}},
        {"\"123\" is not a list of bytes", {"write 4 123"}},
        {"", {"write 4 --text \"\""}},
        {"no tag holds more than 4096 bytes", {"write 4 --file " + big}},
        {"cannot be read", {"write 4 --file none", "restore none.mfd"}},
        {"odd.keys, line 2: a key is 12 hexadecimal digits", {"dump x --keys " + odd}},
        {"longer than 4096 bytes", {"restore " + big}},
        {"--mad", {"format --mad 3 --new-key-b mad"}},
        {"unknown command or option \"dance\"", {"app dance"}},
        {"there are read-only (010), write-b", {"app init 4711 1 --access any --mad-key-b mad" + newKeys}},
        {"32 hexadecimal digits", {"app write 4711 00 --fill 00"}},
        {"cannot start with 0", {"value init 4 0 --decrement-only" + both}},
        {"STATE: \"4\" is neither factory nor formatted", {"access set 4" + both}},
        {"SECTOR: \"x\" is no sector", {"access set x factory" + both}},
        {"either SECTOR or an application",
         {"access set factory" + both, "access set 4 factory --app 4711" + both, "key set" + newKeys}},
        {"use \"value init\"", {"access block 4 value" + both}},
        {"excludes", {"key set --app 4711 --count 2" + newKeys}},
    };
    for (const auto& [meaning, lines] : kMistakes)
        for (const std::string& line : lines) {
            SCOPED_TRACE(line);
            // There is no reader: touching one would be exit status 3.
            const Json object = only(runJson(wordsOf(line), 2));
            EXPECT_EQ(object.value("error", ""), "usage");
            EXPECT_THAT(object.value("meaning", ""), HasSubstr(meaning));
            const bool hasSubcommand = std::regex_search(line, std::regex("^(app|value|access|key) (?!dance)"));
            const std::string command = wordsOf(line)[0] + (hasSubcommand ? " " + wordsOf(line)[1] : "");
            EXPECT_THAT(object.value("advice", ""), HasSubstr("\"qvltag " + command + " --help\""));
            if (line == lines[0]) {
                EXPECT_EQ(run(wordsOf(command + " --help")).status, 0);
            }
        }
    EXPECT_EQ(only(runJson({"read", "4"}, 3)).value("error", ""), "no reader");
}

}  // namespace
