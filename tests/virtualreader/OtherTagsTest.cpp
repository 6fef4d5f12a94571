// What all virtual tags do over the air, and the virtual Ultralight.

#include "AirReader.h"
#include "UltralightTag.h"

#include <gtest/gtest.h>

namespace {

using State = VirtualTag::State;
using Request = VirtualTag::Request;

struct Ultralight {
    Ultralight() : tag(UltralightTag::blankImage(hex("04112233445566"))), reader(tag) { reader.select(); }
    std::string send(std::string_view frame) {
        if (tag.state() != State::active) reader.select();
        return reader.send(frame);
    }
    std::string page(std::size_t number) { return text(tag.memory()->at(4 * number, 4)); }

    UltralightTag tag;
    AirReader reader;
};

TEST(TagStates, CascadeLevelsCarryThePublishedCheckBytes) {
    Ultralight one;
    one.tag.halt();
    std::uint16_t atqa = 0;
    std::uint8_t sak = 0;
    CascadePart part{};
    ASSERT_TRUE(one.tag.request(Request::wupa, atqa));
    EXPECT_FALSE(one.tag.request(Request::wupa, atqa)) << "a second request is a disturbance";
    EXPECT_EQ(one.tag.state(), State::halted) << "woken from halt, it drops back to halt";
    ASSERT_TRUE(one.tag.request(Request::wupa, atqa));
    EXPECT_FALSE(one.tag.anticollision(1, {}, 0, part)) << "not its turn yet";
    ASSERT_TRUE(one.tag.anticollision(0, {}, 0, part));
    EXPECT_EQ(text(part), "88 04 11 22 BF");
    ASSERT_TRUE(one.tag.select(0, part, sak) && one.tag.anticollision(1, {}, 0, part));
    EXPECT_EQ(text(part), "33 44 55 66 44");
    part[0] ^= 1;
    EXPECT_FALSE(one.tag.anticollision(1, part, 8, part)) << "a known bit that differs";
    EXPECT_FALSE(one.tag.select(1, part, sak));
    EXPECT_EQ(one.tag.state(), State::halted) << "another tag was meant";
}

TEST(UltralightPages, ReadGoesRoundAndOnlyUserPagesAreFree) {
    Ultralight one;
    EXPECT_EQ(one.send("30 00"), "04 11 22 BF 33 44 55 66 44 48 00 00 00 00 00 00");
    EXPECT_EQ(one.send("A2 0F 01020304"), "A");
    EXPECT_EQ(one.send("30 0F"), "01 02 03 04 04 11 22 BF 33 44 55 66 44 48 00 00");
    for (const char* refused : {"30 10", "A2 00 01020304", "A2 01 01020304", "A2 10 01020304", "A0 01", "A0 10"}) {
        EXPECT_EQ(one.send(refused), "0") << refused;
        EXPECT_EQ(one.tag.state(), State::idle);
    }
    EXPECT_EQ(one.send("A2 04 0102"), "-") << "too short for a command";
    EXPECT_EQ(one.tag.state(), State::idle);
    EXPECT_EQ(one.send("A0 04"), "A");
    EXPECT_EQ(one.send("AABBCCDD 000102030405060708090A0B"), "A");
    EXPECT_EQ(one.page(4), "AA BB CC DD") << "compatibility writes store four bytes";
    EXPECT_EQ(one.page(5), "00 00 00 00");
    EXPECT_EQ(one.send("A0 04"), "A");
    EXPECT_EQ(one.send("AABBCCDD"), "0") << "they need sixteen";
}

TEST(UltralightPages, OneTimeBitsAndLocksOnlyEverAppear) {
    Ultralight one;
    for (const char* write : {"A2 03 01800010", "A2 03 02000000"})
        EXPECT_EQ(one.send(write), "A");
    EXPECT_EQ(one.page(3), "03 80 00 10");
    EXPECT_EQ(one.send("A2 02 FFFF0000"), "A");
    EXPECT_EQ(one.page(2), "44 48 00 00") << "only lock bytes take part";

    for (std::size_t page = 3; page < 16; ++page) {
        Ultralight locked;
        const unsigned bits = 1u << page;
        const std::uint8_t bytes[] = {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8)};
        EXPECT_EQ(locked.send("A2 02 0000" + text(bytes)), "A");
        for (std::uint8_t other = 3; other < 16; ++other)
            EXPECT_EQ(locked.send("A2" + text({&other, 1}) + "01020304"), other == page ? "0" : "A");
    }
    // The three lowest bits freeze the locks of page 3, of 4 to 9 and of 10 to 15.
    const std::pair<std::string, const char*> frozen[] = {
        {"01", "F7 FF"}, {"02", "0F FC"}, {"04", "FF 03"}, {"07", "07 00"}};
    for (const auto& [freeze, locks] : frozen) {
        Ultralight other;
        EXPECT_EQ(other.send("A2 02 0000" + freeze + "00"), "A");
        EXPECT_EQ(other.send("A2 02 0000FFFF"), "A");
        EXPECT_EQ(other.page(2).substr(6), locks) << freeze;
    }
}

}  // namespace
