// Sessions with smart cards and the raw relay, through the command door.

#include "BflStatus.h"
#include "CommandDoor.h"

#include <numeric>

namespace {

const Bytes kUid{0x08, 1, 2, 3};
const Bytes kOther{0x08, 4, 5, 6};
const Bytes kHello{0x80, 0x01, 0x00};
const Bytes kHelloBack{0x80, 0x01, 0x00, 0x90, 0x00};

/// A reader that is ready, and the door to the cards before it.
class AtTheDoor {
  protected:
    explicit AtTheDoor(Line line = Line::inProcess) : place(line), adaptor(place.start()), door(adaptor) {
        EXPECT_TRUE(adaptor.initReader());
        adaptor.setTagPromptFlag(false);
    }
    /// What the card says to a command that succeeds.
    Bytes ask(const Bytes& command, bool retry = false) {
        EXPECT_EQ(door.send(kUid, command, retry), kOk);
        return door.answer;
    }
    std::string placeCard(const Bytes& uid = kUid) { return place.reader->field().place(scriptedCard(uid)); }
    Workplace place;
    ReaderImpl& adaptor;
    CommandDoor door;
};
class Door : public ::testing::Test, protected AtTheDoor {};
class CardSession : public OnALine, protected AtTheDoor {
  protected:
    CardSession() : AtTheDoor(GetParam()) { placeCard(); }
};
INSTANTIATE_TEST_SUITE_P(Over, CardSession, ::testing::ValuesIn(kLines), [](const auto& line) {
    return line.param == Line::inProcess ? "Process" : line.param == Line::terminal ? "Terminal" : "Socket";
});

TEST_P(CardSession, RunsFromTheWaitToTheDeselection) {
    EXPECT_EQ(door.wait(), kOk);
    EXPECT_EQ(Bytes(door.tag.getUid(), door.tag.getUid() + door.tag.getUidLen()), kUid);
    EXPECT_EQ(door.tag.getTagType(), kTagDesFire);
    EXPECT_EQ(door.cid, isMf500UnderTest()) << "the first number";
    EXPECT_EQ(door.ats, (Bytes{0x06, 0x75, 0x77, 0x81, 0x02, 0x80}));
    EXPECT_EQ(place.poll(), "") << "polling is suspended";
    EXPECT_EQ(ask(kHello), kHelloBack);
    EXPECT_EQ(door.sendRaw(kUid, {0x80, 0x02}), kOk);
    EXPECT_EQ(door.answer, (Bytes{0x90, 0x02})) << "after two requests for time";
    Bytes echo(500, 0x42);
    echo[0] = 0x80, echo[1] = 0x01;
    Bytes echoed = echo;
    echoed.insert(echoed.end(), {0x90, 0x00});
    EXPECT_EQ(ask(echo), echoed) << "chains both ways";
    EXPECT_EQ(door.deselect(kUid), kOk);
    EXPECT_EQ(place.poll(true), "08010203 2005") << "and polling goes on";
    EXPECT_EQ(door.deselect(kOther), kOk) << "nothing to deselect";
}

TEST_P(CardSession, RelaysTheReadersOwnCommands) {
    if (isMf500UnderTest()) {
        EXPECT_EQ(door.relay({0x63}), kNotImplemented) << "a reader with a closed library";
        return;
    }
    EXPECT_EQ(door.relay({0x02}), kOk);
    EXPECT_EQ(door.answer.at(0), 0x03) << "the reply from its code on";
    EXPECT_EQ(door.answer.size(), 3u);
    EXPECT_EQ(door.relay({0x44, 0x01}), kOk) << "whatever its status byte says";
    EXPECT_EQ(door.relay({}), kBflOutOfRange);
    EXPECT_EQ(door.relay(Bytes(255, 0x02)), kBflOutOfRange);
    place.reader->vanish();
    EXPECT_LT(door.relay({0x02}), -1000);
}

TEST_F(Door, RefusesStreamsThatDoNotFit) {
    using Stream = QVLParamCollection;
    const auto tag = [](Stream& in) { CommandDoor::addTag(in, kUid); };
    const auto data = [](Stream& in) { CommandDoor::addBytes(in, kHello); };
    const auto byte = [](Stream& in) { in.addByte(0); };
    const std::pair<CommandDoor::Fill, std::vector<int>> refused[] = {
        {[](Stream&) {}, {40, 42, 43, 46}},
        {[&](Stream& in) { tag(in), data(in), byte(in), byte(in); }, {40}},
        {[&](Stream& in) { tag(in), byte(in), data(in); }, {40}},
        {[&](Stream& in) { byte(in), tag(in), data(in), byte(in); }, {40}},
        {[&](Stream& in) { tag(in), data(in), byte(in); }, {41}},
        {[&](Stream& in) { tag(in), data(in), in.addLong(0); }, {41}},
        {[&](Stream& in) { tag(in), in.addByte(1); }, {42}},
        {[](Stream& in) { in.addLong(9); }, {43}},
        {[](Stream& in) { in.addString("\x02"); }, {46}}};
    for (const auto& [fill, ids] : refused)
        for (const int id : ids)
            EXPECT_EQ(door.raw(id, fill), "-21 -") << id;
    for (const int unknown : {39, 45, 47, -1, 0x7FFFFFFF})
        EXPECT_EQ(door.raw(unknown, tag), "3101 0");
    Stream whole;
    tag(whole), byte(whole), data(whole), byte(whole);
    for (std::uint32_t length = 0; length < whole.getSize(); ++length)
        EXPECT_EQ(door.raw(40, [&](Stream& in) { in.setData(length, whole.getData()); }), "-21 -") << length;
    EXPECT_EQ(door.raw(44, [](Stream& in) { in.addString("x"); }), "3100 0");
    adaptor.stopReader();
    EXPECT_EQ(door.raw(44, [](Stream&) {}), "3100 0") << "needs no reader";
}

TEST_F(Door, TakesUidsOfAnyLength) {
    placeCard();
    Bytes uid(300, 0x11);
    std::copy(kUid.begin(), kUid.end(), uid.begin());
    for (const std::size_t length : {0u, 1u, 3u, 5u, 7u, 10u, 11u, 255u, 256u, 260u, 300u}) {
        const Bytes named(uid.begin(), uid.begin() + static_cast<std::ptrdiff_t>(length));
        const bool tooLong = length > 10;
        EXPECT_EQ(door.send(named, kHello), tooLong ? -21 : kCancelled) << length;
        EXPECT_EQ(door.deselect(named), tooLong ? -21 : kOk) << length;
        EXPECT_EQ(door.wait(named), tooLong ? -21 : kOk) << "the named one is not known, so any will do: " << length;
        EXPECT_EQ(door.deselect(kUid), kOk);
    }
    EXPECT_EQ(door.send(kUid, kHello), kOk);
    EXPECT_EQ(door.send({}, kHello), kOk) << "an empty UID is that of the first card of the table";
    EXPECT_EQ(door.send({0x08}, kHello), kOk) << "and so is its beginning";
}

TEST_F(Door, WaitsAsLongAsItIsTold) {
    adaptor.resetSuspendTime(700);
    EXPECT_EQ(door.wait(), kCancelled) << "without a prompt there is one attempt";
    place.loadSettings("WAITTIME=0\n");
    EXPECT_EQ(door.wait({}, 0), kWaitOver);
    EXPECT_EQ(place.heard(Op::activate), 1u) << "no attempt at all";
    EXPECT_EQ(place.poll(), "") << "polling goes on, and the field is empty";
    EXPECT_EQ(place.heard(Op::activate), 2u);

    const OpenPrompt surface;
    adaptor.setTagPromptFlag(true);
    const auto waited = [&](std::int32_t timeout) {
        const std::uint64_t start = place.clock->nowMs();
        EXPECT_EQ(door.wait({}, timeout), kWaitOver);
        Workplace::awaitPromptEnd();
        return (place.clock->nowMs() - start) / 100;
    };
    adaptor.resetSuspendTime(700);
    EXPECT_EQ(waited(0), 8u);
    EXPECT_EQ(waited(-1), 8u);
    EXPECT_EQ(waited(2000), 21u) << "and the pause in which the time ran out";
    place.loadSettings("WAITTIME=1200\n");
    adaptor.resetSuspendTime(700);
    adaptor.resetSuspendTime(0);
    EXPECT_EQ(waited(0), 13u) << "0 is the time of the settings";
    place.clock->duringWait([&, looks = 0]() mutable {
        if (++looks == 3) placeCard();
    });
    EXPECT_EQ(door.wait({}, 100000), kOk) << "a card that comes while waiting";
    Workplace::awaitPromptEnd();
    place.clock->duringWait({});
    EXPECT_EQ(door.wait(), kOk) << "while polling is suspended already";
    EXPECT_EQ(place.poll(), "");
}

TEST_F(Door, HoldsManyCardsAndRefusesOneMore) {
    // An MF RC500 gives its numbers to the cards, from 1 on, and 15 is one that no card takes.
    const int room = isMf500UnderTest() ? 14 : 16, full = isMf500UnderTest() ? -1 : -45;
    const auto uidOf = [](int i) { return Bytes{0x08, 0x20, 0x30, static_cast<std::uint8_t>(i)}; };
    const auto alone = [&](int i) {
        place.reader->field().clear();
        placeCard(uidOf(i));
    };
    for (int i = 0; i < room; ++i) {
        alone(i);
        EXPECT_EQ(door.send(uidOf(i), kHello), kOk) << i;
    }
    alone(room);
    EXPECT_EQ(door.send(uidOf(room), kHello), full);
    alone(3);
    EXPECT_EQ(door.send(uidOf(3), kHello, true), kOk) << "known, gone meanwhile, and woken again";
    EXPECT_EQ(door.deselect(uidOf(3)), kOk);
    alone(room);
    EXPECT_EQ(door.send(uidOf(room), kHello), kOk) << "there is room again";
    EXPECT_EQ(door.wait(), kOk);
    EXPECT_EQ(door.cid, isMf500UnderTest()) << "a wait empties the table";
}

TEST_F(Door, TriesAFailedExchangeOnceMoreIfAsked) {
    const std::string name = placeCard();
    EXPECT_EQ(door.wait(), kOk);
    const auto blink = [&] {
        place.reader->field().setPresent(name, false);
        place.reader->field().setPresent(name, true);
    };
    blink();
    EXPECT_EQ(door.send(kUid, kHello), -53) << "the card has forgotten the session, so there is none to end";
    EXPECT_EQ(door.send(kUid, kHello), kOk) << "the table has forgotten it, so it is woken";
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_EQ(door.send(kUid, kHello), kOk) << "and so has a start";
    blink();
    EXPECT_EQ(ask(kHello, true), kHelloBack);
    place.reader->field().setPresent(name, false);
    EXPECT_EQ(door.send(kUid, kHello, true), kCancelled);
    EXPECT_EQ(door.send(kUid, {}, true), kCancelled);
    place.reader->field().setPresent(name, true);
    EXPECT_EQ(door.send(kUid, {}, false), -21) << "nothing to send";
}

// A closed MF RC500 says 0 to everything: the command that was sent must not come back as the card's answer.
TEST_F(Door, TakesNoAnswerFromAClosedReader) {
    placeCard();
    for (const bool retry : {false, true}) {
        ASSERT_TRUE(adaptor.initReader());
        ASSERT_EQ(door.wait(), kOk);
        place.clock->advance(600);
        adaptor.scanUSBDevice(1);
        EXPECT_EQ(door.send(kUid, kHello, retry), kOk) << "a scan that finds the reader in use changes nothing";
        adaptor.stopReader();
        for (int i = 0; i < 3; ++i) {
            EXPECT_NE(door.send(kUid, kHello, retry), kOk);
            EXPECT_EQ(door.answer, Bytes());
        }
    }
    std::ranges::fill(place.readerId, std::uint8_t{0xEE});
    place.askReaderId();
    EXPECT_EQ(Bytes(place.readerId, place.readerId + 4), Bytes(4, 0)) << "nor anything for its id";
    EXPECT_EQ(place.host.heard(), "");
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_EQ(door.wait(), kOk);
    EXPECT_EQ(ask(kHello), kHelloBack);
}

TEST_F(Door, DeliversTheRestOfALongAnswerByTheNextCall) {
    placeCard();
    EXPECT_EQ(door.wait(), kOk);
    EXPECT_EQ(ask({0x80, 0x03}).size(), 4096u) << "fits to the byte";
    Bytes rest(5000 - 4096);
    std::iota(rest.begin(), rest.end(), std::uint8_t{4096 % 256});
    for (const bool retry : {false, true}) {
        EXPECT_EQ(door.send(kUid, {0x80, 0x04}, retry), -50) << "woken and asked again, it has the same end";
        EXPECT_EQ(ask(kHello), rest);
        EXPECT_EQ(ask(kHello), kHelloBack);
    }
}

TEST_F(Door, ServesCardsOfEveryFrameSizeAndWithoutInterfaceBytes) {
    for (const Bytes& ats :
         {Bytes{}, Bytes{0x00}, Bytes{0x08}, Bytes{0x70, 0x00, 0x40, 0x00}, Bytes{0x78, 0, 0x40, 2}}) {
        // A card that tells nothing is spoken to without a number, but an MF RC500 has given it one.
        if (isMf500UnderTest() && ats.empty()) continue;
        const std::string name = place.reader->field().place(scriptedCard(kUid, ats));
        EXPECT_EQ(door.wait(), kOk);
        EXPECT_EQ(ask(kHello), kHelloBack);
        EXPECT_EQ(ask({0x80, 0x60, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}).size(), 600u);
        EXPECT_EQ(door.deselect(kUid), kOk);
        place.reader->field().remove(name);
    }
}

}  // namespace
