// Memory, applications and keys of tags, and why work on them fails.

#include "Field.h"

#include <cstdio>
#include <thread>

namespace {

using namespace std::chrono_literals;
using qvl::Bytes;
using qvl::DataAccess;
using qvl::Key;
using qvl::KeyPair;
using qvl::KeyType;
using qvl::Login;
using qvl::Reason;
using ::testing::ElementsAre;

const Key kMaster = Key::parse("0a0b0c0d0e0f"), kA = Key::parse("a1a1a1a1a1a1"), kB = Key::parse("b1b1b1b1b1b1");

TEST(TheTagLayer, ReadsAndWritesAndSaysWhatBecameOfEachBlock) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    EXPECT_EQ(tag.geometry()->blocks, 64);
    tag.write(4, Bytes{1, 2, 3}).orThrow();
    EXPECT_THAT(tag.read(4).bytes(), ::testing::Contains(3).Times(1));

    tag.setKeys(2, 1, {kA, kB}, {}).orThrow("sector");
    const qvl::Blocks partial = tag.read(4, 6);  // blocks 4 to 6 and, of the sector with other keys, 8 to 10
    EXPECT_FALSE(partial.complete());
    EXPECT_EQ(partial.at(0)[0], 1);
    EXPECT_EQ(partial.list()[3].reason(), Reason::wrongKey);
    expectError(Reason::wrongKey, "block 8", [&] { static_cast<void>(partial.bytes()); });
    EXPECT_EQ(partial.bytesWithGaps().size(), 96U);
    expectError(Reason::badArgument, "no such block", [&] { partial.at(6); });
    EXPECT_FALSE(tag.write(5, Bytes(64, 7)).complete());
    expectError(Reason::wrongKey, "block 8", [&] { tag.read(8); });
    expectError(Reason::badArgument, "nothing to write", [&] { tag.write(4, Bytes{}); });
    expectError(Reason::badArgument, "out of range", [&] { tag.read(4, 0); });
    expectError(Reason::badArgument, "outside", [&] { tag.read(4, 64); });
    expectError(Reason::badArgument, "out of range", [&] { tag.read(-1); });
    expectError(Reason::badArgument, "out of range", [&] { tag.read(70000); });
}

TEST(TheTagLayer, SaysTheRightReasonForATagOrReaderThatIsGone) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    field.simulator.takeAway("tag1");
    expectError(Reason::lost, "11223344 left", [&] { tag.read(4, 1, {}, 200ms); });
    expectError(Reason::lost, "11223344 left", [&] { tag.setKeys(1, 1, {kA, kB}, {}, 200ms); });
    std::jthread later([&] {
        std::this_thread::sleep_for(300ms);
        field.simulator.bringBack("tag1");
    });
    EXPECT_EQ(tag.read(4, 1, {}, kPatience).bytes(), Bytes(16)) << "it is waited for";
    field.simulator.unplug();
    expectError(Reason::readerLost, "reader was lost", [&] { tag.read(4, 1, {}, 200ms); });
    field.simulator.plugIn();
    EXPECT_EQ(field.reader.waitForTag(kPatience).uid().text(), "11223344") << "the reader comes back by itself";
}

TEST(TheTagLayer, KeepsApplicationsAndValues) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    expectError(Reason::content, "directory", [&] { tag.applications({Key::factory()}); });
    EXPECT_TRUE(tag.format(kMaster).complete());
    EXPECT_TRUE(tag.applications().empty());
    const qvl::Application app = tag.createApplication(0x4711, 2, kMaster, {kA, kB});
    EXPECT_THAT(app.sectors(), ElementsAre(1, 2));
    EXPECT_THAT(tag.applications(), ElementsAre(0x4711));
    expectError(Reason::content, "already", [&] { tag.createApplication(0x4711, 1, kMaster, {kA, kB}); });
    EXPECT_TRUE(app.writeAll(Bytes{9}, {kB, KeyType::b}).complete());
    EXPECT_EQ(app.readAll({kA}).bytes().size(), 96U);
    EXPECT_EQ(app.read(0, 1, {kA}).bytes()[0], 9);

    app.makeValueBlock(0, 100, {kA, kB});
    app.decrement(0, 30, {kA});
    app.increment(0, 5, {kB, KeyType::b});
    EXPECT_EQ(app.value(0, {kA}), 75);
    expectError(Reason::content, "value", [&] { app.value(1, {kA}); });
    EXPECT_EQ(app.access(0, {kA}).data[0], DataAccess::value);
    app.setAccess(2, DataAccess::readOnly, {kA, kB});
    EXPECT_EQ(tag.access(1, {kA}).data[2], DataAccess::readOnly);

    EXPECT_THAT(app.addSectors(1, kMaster, {kA, kB}), ElementsAre(3));
    app.setKeys({kA, kMaster}, {kB, KeyType::b}).orThrow("sector");
    app.removeSectors(0, 3, kMaster, {kMaster, KeyType::b});
    EXPECT_TRUE(tag.applications().empty());
    EXPECT_TRUE(tag.unformat(kMaster).complete());
    EXPECT_EQ(tag.read(4).bytes(), Bytes(16));
}

TEST(TheTagLayer, ServesAHostOfTwentyLines) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    tag.format(kMaster).orThrow();
    const qvl::Application ticket = tag.createApplication(0x4711, 1, kMaster, {kA, kB});
    ticket.write(1, Bytes{'T', 'r', 'a', 'm'}, {kB, KeyType::b}).orThrow();
    ticket.makeValueBlock(0, 10, {kA, kB});
    field.reader.close();
    std::string said;
    FILE* program = ::popen(COUNT_DOWN, "r");
    for (int c = std::fgetc(program); c != EOF; c = std::fgetc(program))
        said += static_cast<char>(c);
    EXPECT_EQ(::pclose(program), 0);
    EXPECT_EQ(said, "11223344: Tram\n9 rides left\n");
}

TEST(TheTagLayer, FormatsNoOtherTagThanItself) {
    Field field({"new:1k:11223344", "new:1k:55667788"});
    const qvl::Tag tag = field.reader.waitForTag(qvl::Uid::parse("11223344"), kPatience);
    expectError(Reason::badArgument, "not the only one", [&] { tag.format(kMaster); });
    field.simulator.takeAway("tag1");
    expectError(Reason::lost, "left", [&] { tag.format(kMaster, qvl::Tag::Directory::version1, {}, 200ms); });
    for (const char* name : {"tag1", "tag2"}) {
        const Bytes image = field.simulator.image(name);
        EXPECT_EQ(Bytes(image.begin() + 48, image.begin() + 54), Bytes(6, 0xFF)) << name;
    }
}

TEST(TheTagLayer, CopiesAWholeTagAndBack) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    tag.format(kMaster).orThrow();
    tag.createApplication(0x4711, 1, kMaster, {kA, kB}).write(0, Bytes(48, 5), {kB, KeyType::b}).orThrow();
    qvl::KeyRing keys;
    EXPECT_THAT(keys.candidates(0, KeyType::b), ElementsAre(Key::factory()));
    for (const Key& key : {Key::directory(), kMaster})
        keys.add(key);
    EXPECT_THAT(qvl::TagImage::of(tag, keys).missing, ElementsAre(4, 5, 6, 7));
    keys.addA(kA);
    keys.addB(kB);
    const qvl::TagImage image = qvl::TagImage::of(tag, keys);
    EXPECT_TRUE(image.missing.empty());
    EXPECT_EQ(image.bytes, field.simulator.image("tag1"));

    tag.application(0x4711).write(0, Bytes(48, 6), {kB, KeyType::b}).orThrow();
    const qvl::Results results = qvl::writeImage(tag, image.bytes, keys, true, std::vector{5});
    EXPECT_TRUE(results.complete());
    const Bytes after = field.simulator.image("tag1");
    EXPECT_EQ(Bytes(after.begin() + 80, after.begin() + 96), Bytes(16, 6)) << "left alone";
    EXPECT_EQ(Bytes(after.begin() + 64, after.begin() + 80), Bytes(16, 5));
    expectError(Reason::badArgument, "has 1024", [&] { qvl::writeImage(tag, Bytes(320), keys); });
    expectError(Reason::badArgument, "not one of", [&] { keys.addImage(Bytes(320)); });
}

TEST(TheValues, OfTheLayerAreSound) {
    for (unsigned i = 0; i < 8 * 8 * 8 * 8; ++i) {
        qvl::SectorAccess access;
        for (unsigned group = 0; group < 3; ++group)
            access.data[group] = static_cast<DataAccess>(i >> 3 * group & 7);
        access.trailer = static_cast<qvl::TrailerAccess>(8 + (i >> 9));
        auto bytes = access.encode();
        ASSERT_EQ(qvl::SectorAccess::decode(bytes), access) << i;
        bytes[i % 3] = static_cast<std::uint8_t>(bytes[i % 3] ^ 1 << i % 8);
        ASSERT_FALSE(qvl::SectorAccess::decode(bytes)) << i;
    }
    EXPECT_EQ(qvl::toHex(qvl::SectorAccess{}.encode()), "ff0780");
    const qvl::Geometry geometry = *qvl::Geometry::of(kTag4K);
    for (int block = 0; block < geometry.blocks; ++block)
        EXPECT_TRUE(geometry.firstBlock(geometry.sectorOf(block)) <= block &&
                    block <= geometry.trailerOf(geometry.sectorOf(block)));
    EXPECT_EQ(geometry.trailerOf(39), 255);
    EXPECT_EQ(geometry.groupOf(133), 1);
    for (const char* text : {"", "0", "0g", "0102030405060708090a0b"})
        expectError(Reason::badArgument, "UID", [&] { qvl::Uid::parse(text); });
    expectError(Reason::badArgument, "12 hexadecimal digits", [] { Key::parse("12345678901"); });
    expectError(Reason::badArgument, "read-only (010)", [] { qvl::parseDataAccess("none"); });
    EXPECT_TRUE(qvl::Limit(std::chrono::hours(24 * 365 * 400)).deadline() == qvl::Limit().deadline());
    EXPECT_TRUE(qvl::Limit(-1s).isOver());
}

}  // namespace
