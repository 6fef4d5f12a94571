// Sessions with smart cards beside storage tags and beside each other.

#include "Field.h"
#include "TempDirectory.h"

namespace {

using namespace std::chrono_literals;
using qvl::Bytes;
using qvl::Reason;
using ::testing::ElementsAre;

class TheCardLayer : public ::testing::Test {
  protected:
    const TempDirectory place;
    const std::string echo = place.write("echo.card", "kind card\nuid 04010203040506\nats 75778102800a0b\n"
                                                      "answer 00a4* 9000\n"
                                                      "answer 00b0000000 6c04\n"
                                                      "answer 00b0000004 01020304 9000\n"
                                                      "answer 00ca* 6102\nanswer 00c00000* 0506 9000\n"
                                                      "answer 0001* 00\nanswer 0002* count 5000\n");
};

TEST_F(TheCardLayer, TalksWithACardBesideAStorageTag) {
    Field field({"new:1k:11223344", echo, "new:4k:55667788"});
    qvl::Card card = field.reader.waitForCard(kPatience);
    EXPECT_EQ(card.uid().text(), "04010203040506");
    EXPECT_EQ(qvl::toHex(card.ats()), "0875778102800a0b");
    EXPECT_THAT(card.transmit(Bytes{0x00, 0xA4, 0x04, 0x00}), ElementsAre(0x90, 0x00));

    const qvl::ApduAnswer read = card.exchange(Bytes{0x00, 0xB0, 0x00, 0x00, 0x00});
    EXPECT_THAT(read.data, ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(read.followUps, ElementsAre(Bytes{0x00, 0xB0, 0x00, 0x00, 0x04}));
    EXPECT_THAT(card.exchange(Bytes{0x00, 0xCA, 0x00, 0x00, 0x00}).data, ElementsAre(5, 6));
    EXPECT_EQ(card.exchange(Bytes{0xFF, 0x00}).statusWord(), 0x6D00);
    expectError(Reason::content, "no status word", [&] { card.exchange(Bytes{0x00, 0x01}); });
    expectError(Reason::notPermitted, "more than 4096", [&] { card.transmit(Bytes{0x00, 0x02}); });
    EXPECT_EQ(card.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x9000) << "nothing of the long answer is left";

    card.close();
    card.close();
    expectError(Reason::noReader, "session", [&] { card.transmit(Bytes{0x00, 0xA4}); });
    EXPECT_EQ(field.reader.waitForTag(qvl::Uid::parse("55667788"), kPatience).read(1).bytes(), Bytes(16));
}

TEST_F(TheCardLayer, HoldsSeveralSessionsAtOnce) {
    Field field({echo, "new:card:04111111111111"});
    qvl::Card first = field.reader.waitForCard(qvl::Uid::parse("04010203040506"), kPatience);
    expectError(Reason::badArgument, "would end the session", [&] { field.reader.tags(); });
    if (!isMf500UnderTest()) {
        expectError(Reason::notSupported, "does not offer", [&] { field.reader.waitForCard(kPatience); });
        EXPECT_EQ(first.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x9000);
        return;
    }
    qvl::Card second = field.reader.waitForCard(qvl::Uid::parse("04111111111111"), kPatience);
    EXPECT_NE(first.number(), second.number());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(first.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x9000);
        EXPECT_EQ(second.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x6D00);
    }
    second = std::move(first);
    EXPECT_EQ(second.uid().text(), "04010203040506");
    EXPECT_EQ(second.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x9000);
}

TEST_F(TheCardLayer, TellsOfACardThatLeaves) {
    Field field({echo});
    qvl::Card card = field.reader.waitForCard(kPatience);
    field.simulator.takeAway("tag1");
    expectError(Reason::lost, "exchange", [&] { card.transmit(Bytes{0x00, 0xA4}); });
    field.simulator.bringBack("tag1");
    qvl::Card again = field.reader.waitForCard(kPatience);
    EXPECT_EQ(again.exchange(Bytes{0x00, 0xA4}).statusWord(), 0x9000);
}

TEST_F(TheCardLayer, ReadsNdefMessages) {
    // Language "en", text "hi"; a URI in two chunks.
    const Bytes message{0x91, 0x01, 0x05, 'T',  0x02, 'e', 'n',  'h',  'i',  0x31,
                        0x01, 0x03, 'U',  0x04, 'a',  'b', 0x56, 0x00, 0x01, 'c'};
    std::string file(2, '\0');
    file[1] = static_cast<char>(message.size());
    file.append(message.begin(), message.end());
    place.write("tag.ndef", file);
    Field field({place.write("tag.card", "kind card\nndef tag.ndef\n")});
    qvl::Card card = field.reader.waitForCard(kPatience);
    const auto records = qvl::NdefMessage::parse(qvl::readNdef(card)).records;
    ASSERT_EQ(records.size(), 2U);
    ASSERT_TRUE(records[0].text());
    EXPECT_EQ(records[0].text()->language + ":" + records[0].text()->text, "en:hi");
    EXPECT_EQ(records[1].uri(), "https://abc");
    for (std::size_t length = 0; length < message.size(); ++length)
        EXPECT_THROW(qvl::NdefMessage::parse(qvl::ByteView(message).first(length)), qvl::Error) << length;
}

}  // namespace
