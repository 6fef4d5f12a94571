// Images and descriptions of tags in files.

#include "HexBytes.h"
#include "TempDirectory.h"

#include "MifareClassicTag.h"
#include "SmartCard.h"
#include "TagImage.h"
#include "TagMemory.h"
#include "UltralightTag.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

std::string asText(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

std::string describe(const MadeTag& made) {
    if (!made.tag) return "none";
    char identity[32];
    std::snprintf(identity, sizeof identity, "%04X %02X ", made.tag->atqa(), made.tag->sak());
    return std::string(made.tag->kind()) + " " + identity + text(made.tag->uid());
}

TEST(TagImages, ComeInAndGoOutByteForByte) {
    const TempDirectory directory;
    const std::tuple<const char*, std::vector<std::uint8_t>, const char*> kImages[] = {
        {"mini.mfd", MifareClassicTag::blankImage(320, hex("DEADBEEF")), "Classic Mini 0004 09 DE AD BE EF"},
        {"one.bin", MifareClassicTag::blankImage(1024, hex("01020304")), "Classic 1K 0004 08 01 02 03 04"},
        {"four.dump", MifareClassicTag::blankImage(4096, hex("88020304")), "Classic 4K 0002 18 88 02 03 04"},
        {"light", UltralightTag::blankImage(hex("04112233445566")), "Ultralight 0044 00 04 11 22 33 44 55 66"},
    };
    for (const auto& [file, image, identity] : kImages) {
        const std::string path = directory.write(file, asText(image));
        const MadeTag made = makeTag(path);
        EXPECT_EQ(describe(made), identity);
        EXPECT_EQ(imagePathOf(path), path);
        const std::uint8_t change[] = {0x12, 0x34};
        made.tag->memory()->write(60, change);
        EXPECT_EQ(saveTag(*made.tag, path), "");
        auto changed = image;
        std::ranges::copy(change, changed.begin() + 60);
        EXPECT_EQ(directory.read(file), asText(changed));
    }
    const std::string nowhere = directory / "no/such/place";
    EXPECT_EQ(saveTag(*makeTag("new:1k").tag, nowhere), nowhere + ": cannot be written");
    EXPECT_EQ(saveTag(*makeTag("new:card").tag, directory / "card"), "a smart card has no memory to save");
}

TEST(TagImages, DescriptionsSayWhatAnImageCannot) {
    const TempDirectory directory;
    directory.write("seven.bin", asText(MifareClassicTag::blankImage(1024, hex("04112233445566"))));
    constexpr std::tuple<const char*, const char*, const char*> kCards[] = {
        {"kind 1k\nuid 04 11 22 33 44 55 66 # long\nimage seven.bin\n", "Classic 1K 0044 08 04 11 22 33 44 55 66",
         "seven.bin"},
        {"kind 4k\r\nuid 04112233445566\r\nsak 88\r\n", "Classic 4K 0042 88 04 11 22 33 44 55 66", ""},
        {"\n# phone\nkind card\nuid 08:01:02:03\nats 78 80 70 02\natqa 0004\nquirk fresh-uid",
         "smart card 0004 20 08 01 02 03", ""},
        {"kind ultralight", "Ultralight 0044 00 04 11 22 33 44 55 66", ""},
    };
    for (const auto& [lines, identity, image] : kCards) {
        const std::string path = directory.write("a.card", lines);
        const MadeTag made = makeTag(path);
        EXPECT_EQ(describe(made), identity) << made.message;
        EXPECT_EQ(imagePathOf(path), *image ? directory / image : "");
    }
    const MadeTag card = makeTag(directory.write("b.card", "kind card\nats 40 00\nquirk strict-cid"));
    EXPECT_EQ(text(dynamic_cast<SmartCard&>(*card.tag).ats()), "40 00");
    EXPECT_TRUE(card.tag->quirks().strictCid);
    EXPECT_EQ(describe(makeTag("new:mini:01020304")), "Classic Mini 0004 09 01 02 03 04");
}

TEST(TagImages, MistakesSayWhatIsWrongAndWhatWouldBeRight) {
    const TempDirectory directory;
    auto odd = MifareClassicTag::blankImage(1024, hex("DEADBEEF"));
    odd[4] ^= 1;
    const auto file = [&](const char* name, const std::string& content) { return directory.write(name, content); };
    const std::pair<std::string, const char*> mistakes[] = {
        {directory / "none.bin", "there is no such file"},
        {file("huge", std::string(70000, 'x')), "too large for a tag"},
        {file("e", ""), "0 bytes are no tag image; right are 320"},
        {file("g", std::string(1152, '\0')), "cut the 1152 bytes"},
        {"new:2k", "\"2k\" is no kind of tag; known are mini, 1k, 4k, ultralight, card"},
        {"new:1k:0102030405", "a UID of 5 bytes does not fit the kind \"1k\": 4 or 7 bytes"},
        {"new:ultralight:01020304", "7 bytes"},
        {file("a.card", "uid 01020304"), "a line \"kind\" is missing"},
        {file("b.card", "kind 1k\ncolour red"), "line 2: \"colour\" is unknown; known are kind, uid"},
        {file("d.card", "kind card\nsak 0808"), "line 2: \"0808\" is not 1 bytes"},
        {file("e.card", "kind card\nquirk odd"), "\"odd\" is no quirk; known are readable-key-b-refused"},
        {file("f.card", "kind 1k\nimage g"), "the kind \"1k\" has 1024 bytes, this file 1152"},
        {file("odd", asText(odd)), "warning: byte 4 of block 0"},
    };
    for (const auto& [path, part] : mistakes) {
        const MadeTag made = makeTag(path);
        EXPECT_EQ(made.tag != nullptr, path.ends_with("odd")) << path;
        EXPECT_NE(made.message.find(part), std::string::npos) << made.message;
    }
}

}  // namespace
