// An allocation fails, once or from then on, at each place of each operation: nothing is thrown, the lock is free, and
// the next operation works.

#include "CommandDoor.h"
#include "FailingMemory.h"

namespace {

const Bytes kUid{0x08, 1, 2, 3};

class OutOfMemory : public ::testing::TestWithParam<bool> {
  protected:
    OutOfMemory() { place.placeClassic(); }
    ~OutOfMemory() override { gAllowed = -1; }

    /// Runs `operation` with the n-th allocation failing, for all n that it reaches, and `after` after each.
    template <typename Operation, typename After>
    void sweep(Operation operation, After after) {
        long allowed = 0;
        for (gHasFailed = true; gHasFailed && !HasFailure(); ++allowed) {
            gFailsOnce = GetParam();
            gHasFailed = false;
            gAllowed = allowed;
            operation();
            gAllowed = -1;
            after();
        }
        EXPECT_GT(allowed, 1);
    }
    void start() { ASSERT_TRUE(place.start().initReader()); }

    Workplace place;
};
INSTANTIATE_TEST_SUITE_P(OnceAndForGood, OutOfMemory, ::testing::Bool());

TEST_P(OutOfMemory, CreationAndStartAreRefusedOrWork) {
    sweep([this] { place.adaptor.reset(createAdaptorInstance(&place.host)); },
          [this] {
              EXPECT_TRUE(!place.adaptor || place.adaptor->initReader());
              place.adaptor.reset();
          });
    place.start();
    sweep([this] { place.adaptor->initReader(); },
          [this] {
              EXPECT_TRUE(place.adaptor->initReader());
              place.adaptor->stopReader();
          });
}

TEST_P(OutOfMemory, APolledTagIsReportedByTheNextPollAndAScanKeepsTheDriver) {
    start();
    sweep(
        [this] {
            EventObject* event = nullptr;
            if (place.adaptor->pollTag(event, false, false)) place.adaptor->freeMemory(event);
            EXPECT_EQ(event == nullptr, gHasFailed) << "no event, or a whole one";
        },
        [this] {
            EXPECT_TRUE(!gHasFailed || place.poll() == "deadbeef 2002") << "it stayed awake";
            const std::string name = place.reader->field().list()[0].name;
            place.reader->field().setPresent(name, false);
            place.reader->field().setPresent(name, true);
        });
    sweep(
        [this] {
            place.clock->advance(500);
            place.adaptor->scanUSBDevice(1);
        },
        [this] { EXPECT_EQ(place.poll(true), "deadbeef 2002"); });
}

TEST_P(OutOfMemory, SearchesAndReadsGiveAllOrNothing) {
    start();
    place.placeClassic({1, 2, 3, 4});
    ReaderImpl& ai = *place.adaptor;
    TagUID* tags = nullptr;
    std::uint8_t* data = nullptr;
    const auto release = [&] {
        EXPECT_EQ(tags == nullptr && data == nullptr, gHasFailed);
        ai.freeMemory(std::exchange(tags, nullptr));
        ai.freeMemory(std::exchange(data, nullptr));
    };
    short count = 0;
    int length = 0;
    sweep([&] { ai.getTagId(0, TagAppNone, 0, tags, AuthKeyA, nullptr, true); }, release);
    sweep([&] { ai.getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags); }, release);
    const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF}, key(6, 0xFF);
    const TagUID tag(uid.data(), 4, kTagStandard);
    sweep(
        [&] {
            ai.getBlockData(0, TagAppNone, tag, 0, AuthKeyA, key.data(), 4, 6, data, length, AuthKeyA, nullptr,
                            nullptr);
        },
        release);
}

TEST_P(OutOfMemory, ACommandToACardIsAnsweredOrRefused) {
    place.reader->field().clear();
    place.reader->field().place(std::make_shared<SmartCard>(kUid, Bytes{0x75, 0x77, 0x81, 0x02}));
    start();
    CommandDoor door(*place.adaptor);
    QVLParamCollection send, wait;
    CommandDoor::addTag(send, kUid);
    send.addByte(0);
    CommandDoor::addBytes(send, {0x00, 0x84, 0x00, 0x00, 0x08});
    send.addByte(1);
    CommandDoor::addTag(wait, {});
    wait.addLong(0);
    for (const int id : {40, 42}) {
        QVLParamCollection& in = id == 40 ? send : wait;
        int status = 0;
        sweep(
            [&] {
                in.rewind();
                QVLParamCollection* out = nullptr;
                status = place.adaptor->runCommand(id, in, out);
                place.adaptor->freeMemory(out);
            },
            [&] {
                EXPECT_TRUE(gHasFailed || status == kOk);
                // A session whose result found no room has begun all the same.
                const bool hasBegun = id == 42 && (status == kOk || status == kStreamFull);
                EXPECT_EQ(place.adaptor->resumePoll(door.tag), hasBegun ? kOk : kNotSuspended);
                // The reader, which is in this process too, may have failed within a command.
                EXPECT_TRUE(place.adaptor->initReader());
                EXPECT_EQ(door.wait(), kOk);
                EXPECT_EQ(door.send(kUid, {0x00, 0x84}), kOk);
                EXPECT_EQ(door.deselect(kUid), kOk);
            });
    }
}

}  // namespace
