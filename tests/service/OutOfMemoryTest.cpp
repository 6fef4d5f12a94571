// An allocation fails, once or from then on, at each place of each operation: nothing is thrown, the lock is free, and
// the next operation works.

#include "CommandDoor.h"
#include "FailingMemory.h"

namespace {

class OutOfMemory : public ::testing::TestWithParam<bool> {
  protected:
    OutOfMemory() { place.placeClassic(); }
    ~OutOfMemory() override { gAllowed = -1; }

    /// Runs `operation` with the n-th allocation failing, for all n that it reaches, and `after` behind each.
    template <typename Operation, typename After>
    void sweep(Operation operation, After after) {
        int places = 0;
        for (long allowed = 0;; ++allowed) {
            gFailsOnce = GetParam();
            gHasFailed = false;
            gAllowed = allowed;
            operation();
            gAllowed = -1;
            after();
            if (HasFailure() || !gHasFailed) break;
            ++places;
        }
        EXPECT_GT(places, 0);
    }

    Workplace place;
};
INSTANTIATE_TEST_SUITE_P(OnceAndForGood, OutOfMemory, ::testing::Bool());

TEST_P(OutOfMemory, CreationGivesNullOrAnAdaptorThatWorks) {
    sweep([this] { place.adaptor.reset(createAdaptorInstance(&place.host)); },
          [this] {
              if (place.adaptor) {
                  EXPECT_TRUE(place.adaptor->initReader());
              }
              place.adaptor.reset();
          });
}

TEST_P(OutOfMemory, StartingIsRefusedAndThenWorks) {
    place.start();
    sweep([this] { place.adaptor->initReader(); },
          [this] {
              EXPECT_TRUE(place.adaptor->initReader());
              place.adaptor->stopReader();
          });
}

TEST_P(OutOfMemory, APolledTagIsReportedByTheNextPoll) {
    place.start();
    ASSERT_TRUE(place.adaptor->initReader());
    sweep(
        [this] {
            EventObject* event = nullptr;
            if (place.adaptor->pollTag(event, false, false)) place.adaptor->freeMemory(event);
            EXPECT_EQ(event == nullptr, gHasFailed) << "no event, or a whole one";
        },
        [this] {
            if (gHasFailed) {
                EXPECT_EQ(place.poll(), "deadbeef 2002") << "it stayed awake";
            }
            const std::string name = place.reader->field().list()[0].name;
            place.reader->field().setPresent(name, false);
            place.reader->field().setPresent(name, true);
        });
}

TEST_P(OutOfMemory, AScanKeepsTheDriver) {
    place.start();
    ASSERT_TRUE(place.adaptor->initReader());
    sweep(
        [this] {
            place.clock->advance(500);
            place.adaptor->scanUSBDevice(1);
        },
        [this] { EXPECT_EQ(place.poll(true), "deadbeef 2002"); });
}

TEST_P(OutOfMemory, SearchesAndReadsGiveAllOrNothing) {
    place.start();
    ASSERT_TRUE(place.adaptor->initReader());
    place.placeClassic({1, 2, 3, 4});
    TagUID* tags = nullptr;
    short count = 0;
    const auto release = [&] {
        EXPECT_EQ(tags == nullptr, gHasFailed);
        place.adaptor->freeMemory(tags);
        tags = nullptr;
    };
    sweep([&] { place.adaptor->getTagId(0, TagAppNone, 0, tags, AuthKeyA, nullptr, true); }, release);
    sweep([&] { place.adaptor->getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags); }, release);
    const std::uint8_t uid[] = {0xDE, 0xAD, 0xBE, 0xEF}, key[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const TagUID tag(uid, 4, kTagStandard);
    std::uint8_t* data = nullptr;
    int length = 0;
    sweep(
        [&] {
            place.adaptor->getBlockData(0, TagAppNone, tag, 0, AuthKeyA, key, 4, 6, data, length, AuthKeyA, nullptr,
                                        nullptr);
        },
        [&] {
            EXPECT_EQ(data == nullptr, gHasFailed);
            place.adaptor->freeMemory(data);
            data = nullptr;
        });
}

TEST_P(OutOfMemory, ACommandToACardIsAnsweredOrRefused) {
    place.reader->field().clear();
    const Bytes uid{0x08, 1, 2, 3};
    place.reader->field().place(std::make_shared<SmartCard>(uid, Bytes{0x75, 0x77, 0x81, 0x02}));
    place.start();
    ASSERT_TRUE(place.adaptor->initReader());
    QVLParamCollection in;
    TagUID tag(uid.data(), 4, 0);
    const std::uint8_t command[] = {0x00, 0x84, 0x00, 0x00, 0x08};
    in.addParameter(tag);
    in.addByte(0);
    in.addBytes(sizeof command, command);
    in.addByte(1);
    CommandDoor door(*place.adaptor);
    int status = 0;
    QVLParamCollection* out = nullptr;
    sweep(
        [&] {
            in.rewind();
            status = place.adaptor->runCommand(40, in, out);
        },
        [&] {
            if (!gHasFailed) {
                EXPECT_EQ(status, kOk);
            }
            place.adaptor->freeMemory(out);
            out = nullptr;
            // The reader, which is in this process too, may have failed within a command.
            EXPECT_TRUE(place.adaptor->initReader());
            EXPECT_EQ(door.wait(), kOk);
            EXPECT_EQ(door.send(uid, {0x00, 0x84}), kOk);
            EXPECT_EQ(door.deselect(uid), kOk);
        });
}

}  // namespace
