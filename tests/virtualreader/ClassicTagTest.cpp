// The virtual Classic tag over the air: access conditions, values, geometry.

#include "AirReader.h"
#include "MifareClassicTag.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* kKeyA = "A0A1A2A3A4A5";
constexpr const char* kKeyB = "B0B1B2B3B4B5";
constexpr const char* kValue100 = "64000000 9BFFFFFF 64000000 05FA05FA";
constexpr const char* kSixteen = "00112233445566778899AABBCCDDEEFF";

/// The published tables, in the order of the data sheet. Columns: read, write, increment, decrement and its kin.
struct DataRow {
    const char *bits, *read, *write, *increment, *decrement;
};
constexpr DataRow kDataTable[] = {
    {"000", "AB", "AB", "AB", "AB"}, {"010", "AB", "", "", ""},   {"100", "AB", "B", "", ""},
    {"110", "AB", "B", "B", "AB"},   {"001", "AB", "", "", "AB"}, {"011", "B", "B", "", ""},
    {"101", "B", "", "", ""},        {"111", "", "", "", ""},
};
/// Columns: write key A, read and write access bits, read and write key B.
struct TrailerRow {
    const char *bits, *writeA, *readBits, *writeBits, *readB, *writeB;
};
constexpr TrailerRow kTrailerTable[] = {
    {"000", "A", "A", "", "A", "A"}, {"010", "", "A", "", "A", ""},    {"100", "B", "AB", "", "", "B"},
    {"110", "", "AB", "", "", ""},   {"001", "A", "A", "A", "A", "A"}, {"011", "B", "AB", "B", "", "B"},
    {"101", "", "AB", "B", "", ""},  {"111", "", "AB", "", "", ""},
};

bool has(const char* who, char key) { return std::string(who).find(key) != std::string::npos; }

/// Access bytes 6 to 8 with these conditions (text of C1 C2 C3) for groups 0 to 2 and the trailer.
std::array<std::uint8_t, 3> accessBytes(const std::array<std::string, 4>& groups) {
    unsigned c[3] = {};
    for (unsigned group = 0; group < 4; ++group)
        for (unsigned i = 0; i < 3; ++i)
            if (groups[group][i] == '1') c[i] |= 1u << group;
    return {static_cast<std::uint8_t>((~c[1] & 15) << 4 | (~c[0] & 15)),
            static_cast<std::uint8_t>(c[0] << 4 | (~c[2] & 15)), static_cast<std::uint8_t>(c[2] << 4 | c[1])};
}

/// A 1K tag whose sector 1 has these conditions and keys; its data blocks hold the value 100, address 5.
struct Sector1 {
    explicit Sector1(const std::array<std::string, 4>& groups = {"000", "000", "000", "001"})
        : Sector1(accessBytes(groups)) {}
    explicit Sector1(std::array<std::uint8_t, 3> access) : tag(image(access)), reader(tag) { reader.select(); }

    static std::vector<std::uint8_t> image(std::array<std::uint8_t, 3> access) {
        constexpr std::ptrdiff_t kTrailer = 112;
        auto bytes = MifareClassicTag::blankImage(1024, hex("DEADBEEF"));
        for (std::size_t block : {4u, 5u, 6u})
            std::ranges::copy(hex(kValue100), bytes.begin() + static_cast<std::ptrdiff_t>(16 * block));
        std::ranges::copy(hex(std::string(kKeyA) + "00000069" + kKeyB), bytes.begin() + kTrailer);
        std::ranges::copy(access, bytes.begin() + kTrailer + 6);
        return bytes;
    }
    bool login(char key) { return reader.select() == "08" && reader.authenticate(key, 7, key == 'A' ? kKeyA : kKeyB); }
    std::string block(std::size_t number) { return text(tag.memory()->at(16 * number, 16)); }

    MifareClassicTag tag;
    AirReader reader;
};

/// True if the tag carries the operation out; a refusal must be a NAK after which the tag is no longer selected.
bool allowed(Sector1& sector, char key, const std::string& command, const std::string& data = {}) {
    EXPECT_TRUE(sector.login(key));
    std::string answer = sector.reader.send(command);
    const bool good = answer == "A" || answer.size() > 2;
    if (!good) {
        EXPECT_EQ(answer, "4") << command;
        EXPECT_EQ(sector.tag.state(), VirtualTag::State::idle);
    } else if (!data.empty()) {
        EXPECT_EQ(sector.reader.send(data), command.starts_with("A0") ? "A" : "-");
    }
    return good;
}

TEST(ClassicAccess, EveryDataConditionUnderEveryTrailerConditionAndKey) {
    for (const DataRow& row : kDataTable) {
        for (const TrailerRow& trailer : kTrailerTable) {
            for (unsigned turn = 0; turn < 6; ++turn) {
                const unsigned group = turn % 3;
                const char key = turn < 3 ? 'A' : 'B';
                std::array<std::string, 4> groups{"111", "111", "111", trailer.bits};
                groups[group] = row.bits;
                Sector1 sector(groups);
                SCOPED_TRACE(std::string(row.bits) + " under " + trailer.bits + " key " + key);
                const bool usable = key == 'A' || !*trailer.readB;
                const auto expect = [&](const char* who) { return usable && has(who, key); };
                const std::string at = " 0" + std::to_string(4 + group);
                EXPECT_EQ(allowed(sector, key, "30" + at), expect(row.read));
                EXPECT_EQ(allowed(sector, key, "C1" + at, "01000000"), expect(row.increment));
                EXPECT_EQ(allowed(sector, key, "C0" + at, "01000000"), expect(row.decrement));
                EXPECT_EQ(allowed(sector, key, "C2" + at, "00000000"), expect(row.decrement));
                EXPECT_EQ(sector.reader.send("B0" + at), expect(row.decrement) ? "A" : "-");
                EXPECT_EQ(allowed(sector, key, "A0" + at, kSixteen), expect(row.write));
                EXPECT_EQ(sector.block(4 + group) == text(hex(kSixteen)), expect(row.write));
            }
        }
    }
}

TEST(ClassicAccess, EveryTrailerConditionProtectsEachFieldByItself) {
    const std::string fresh = text(hex("C0C1C2C3C4C5 FF078000 D0D1D2D3D4D5"));
    for (const TrailerRow& row : kTrailerTable) {
        for (char key : {'A', 'B'}) {
            SCOPED_TRACE(std::string(row.bits) + " key " + key);
            const bool usable = key == 'A' || !*row.readB;
            const auto may = [&](const char* who) { return usable && has(who, key); };
            Sector1 sector({"000", "000", "000", row.bits});
            const std::string old = sector.block(7);

            ASSERT_TRUE(sector.login(key));
            const auto seen = [&](const char* who, std::size_t at, std::size_t length) {
                return may(who) ? old.substr(at, length) : text(std::vector<std::uint8_t>(length / 3 + 1));
            };
            const std::string read = "00 00 00 00 00 00 " + seen(row.readBits, 18, 11) + " " + seen(row.readB, 30, 17);
            EXPECT_EQ(sector.reader.send("30 07"), usable ? read : "4");

            const bool any = may(row.writeA) || may(row.writeBits) || may(row.writeB);
            const bool all = may(row.writeA) && may(row.writeBits) && may(row.writeB);
            EXPECT_EQ(allowed(sector, key, "A0 07", fresh), any);
            EXPECT_EQ(sector.block(7), (may(row.writeA) ? fresh : old).substr(0, 18) +
                                           (may(row.writeBits) ? fresh : old).substr(18, 12) +
                                           (may(row.writeB) ? fresh : old).substr(30));

            Sector1 quirky({"000", "000", "000", row.bits});
            quirky.tag.quirks().partialTrailerWriteRefused = true;
            quirky.tag.quirks().readableKeyBRefused = true;
            EXPECT_EQ(quirky.login(key), usable);
            if (usable && any && quirky.reader.send("A0 07") == "A") {
                EXPECT_EQ(quirky.reader.send(fresh), all ? "A" : "4");
                EXPECT_EQ(quirky.block(7) == old, !all);
            }
        }
    }
}

TEST(ClassicAccess, AnyBitWithoutItsComplementBlocksTheSectorAndNoOther) {
    const auto sound = accessBytes({"000", "000", "000", "001"});
    for (unsigned bit = 0; bit < 24; ++bit) {
        auto access = sound;
        access[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
        Sector1 sector(access);
        EXPECT_FALSE(sector.login('A') || sector.login('B')) << bit;
        sector.reader.select();
        EXPECT_TRUE(sector.reader.authenticate('A', 8));
    }
    // Written in good order, the same bytes lock the writer out at once.
    Sector1 sector(sound);
    ASSERT_TRUE(allowed(sector, 'A', "A0 07", "FFFFFFFFFFFF FF0781 69 FFFFFFFFFFFF"));
    EXPECT_EQ(sector.reader.send("30 04"), "4");
    EXPECT_FALSE(sector.login('A'));
}

TEST(ClassicValue, OnlySoundValueBlocksCountAndTheBufferDiesWithTheSession) {
    for (int byte = 0; byte < 16; ++byte) {
        Sector1 sector;
        auto block = hex(kValue100);
        block[static_cast<std::size_t>(byte)] ^= 0x10;
        ASSERT_TRUE(allowed(sector, 'A', "A0 04", text(block)));
        EXPECT_FALSE(allowed(sector, 'A', "C1 04", "01000000")) << byte;
    }
    Sector1 sector;
    ASSERT_TRUE(allowed(sector, 'A', "C1 04", "01000000"));
    ASSERT_TRUE(sector.login('A'));
    EXPECT_EQ(sector.reader.send("B0 04"), "4") << "a new session has nothing to transfer";
    ASSERT_TRUE(allowed(sector, 'A', "C1 04", "01000000"));
    EXPECT_EQ(sector.reader.send("A0 03"), "0") << "the NAK says that the transfer buffer is valid";
    sector.reader.select();
    ASSERT_TRUE(sector.reader.authenticate('A', 0));
    EXPECT_EQ(sector.reader.send("A0 00"), "4") << "nobody writes the maker's block";
}

TEST(ClassicGeometry, FourKilobytesHaveSmallAndLargeSectors) {
    MifareClassicTag tag(MifareClassicTag::blankImage(4096, hex("DEADBEEF")));
    AirReader reader(tag);
    EXPECT_EQ(reader.select(), "18");
    ASSERT_TRUE(reader.authenticate('A', 240));
    EXPECT_EQ(reader.send("30 FF").size(), 47u);
    EXPECT_EQ(reader.send("30 EF"), "4") << "the sector before";
    const int large[][2] = {{128, 0}, {132, 0}, {133, 1}, {137, 1}, {138, 2}, {142, 2}, {143, 3}, {255, 3}};
    for (const auto& [block, group] : large)
        EXPECT_EQ(accessGroup(block), static_cast<std::size_t>(group)) << block;

    MifareClassicTag mini(MifareClassicTag::blankImage(320, hex("DEADBEEF")));
    AirReader small(mini);
    EXPECT_EQ(small.select(), "09");
    EXPECT_TRUE(small.authenticate('A', 19) && !small.authenticate('A', 20));
}

}  // namespace
