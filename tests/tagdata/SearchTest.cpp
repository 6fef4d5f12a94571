// Asking for tags: any tag, a tag with a directory, a tag with an application, all tags.

#include "TagWorkplace.h"

namespace {

class Search : public ::testing::Test {
  protected:
    std::string one(TagAppType kind, short app = 0, bool halt = false) {
        TagUID* tag = nullptr;
        const int status = place.adaptor->getTagId(0, kind, app, tag, AuthKeyA, nullptr, halt);
        std::string told = std::to_string(status);
        if (tag != nullptr) {
            char* text = tag->toHexString();
            told += std::string(" ") + text;
            delete[] text;
        }
        place.adaptor->freeMemory(tag);
        return told;
    }
    std::string all(TagAppType kind, short app = 0) {
        TagUID* tags = nullptr;
        short count = -1;
        const int status = place.adaptor->getAllTagId(0, kind, app, AuthKeyA, nullptr, count, tags);
        std::string told = std::to_string(status) + " " + std::to_string(count);
        for (short i = 0; i < count && tags != nullptr; ++i) {
            char* text = tags[i].toHexString();
            told += std::string(" ") + text;
            delete[] text;
        }
        place.adaptor->freeMemory(tags);
        return told;
    }
    TagWorkplace place;
};

TEST_F(Search, FindsAnyTagEvenAHaltedOne) {
    EXPECT_EQ(place.poll(), "deadbeef 2002");
    EXPECT_EQ(one(TagAppNone), "3100 deadbeef");
    EXPECT_EQ(one(TagAppNone, 3, true), "3100 deadbeef") << "without a directory the id plays no part";
    EXPECT_EQ(place.poll(), "");
    place.placeClassic({1, 2, 3, 4});
    EXPECT_EQ(all(TagAppNone), "3100 2 01020304 deadbeef");
    EXPECT_EQ(place.poll(), "") << "all halted";
}

TEST_F(Search, FindsTagsByDirectoryAndApplication) {
    place.placeClassic({1, 2, 3, 4});
    EXPECT_EQ(one(TagAppMad1), "3130");
    EXPECT_EQ(all(TagAppMad1), "3100 0");
    place.reader->field().remove("tag2");
    ASSERT_EQ(place.format(TagAppMad1), kOk);
    ASSERT_EQ(place.initApp(100, 1), kOk);
    place.reader->field().clear();
    place.placeClassic({1, 2, 3, 4});
    place.reader->field().place(place.virtualTag);
    EXPECT_EQ(one(TagAppMad1), "3100 deadbeef") << "the first one has no directory";
    EXPECT_EQ(one(TagAppMad1, 100), "3100 deadbeef");
    EXPECT_EQ(all(TagAppMad1, 100), "3100 1 deadbeef");
    EXPECT_EQ(one(TagAppMad1, 101), "3130");
    EXPECT_EQ(all(TagAppMad1, 101), "3100 0");
    for (const short bad : {short{1}, short{5}}) {
        EXPECT_EQ(one(TagAppMad1, bad), "3021");
        EXPECT_EQ(all(TagAppMad1, bad), "3021 -1");
    }
}

TEST_F(Search, WaitsOnlyUnderAPrompt) {
    place.reader->field().clear();
    const std::uint32_t before = place.reader->commandCount(0x4A);
    EXPECT_EQ(one(TagAppNone), "3121");
    EXPECT_EQ(place.reader->commandCount(0x4A), before + 1) << "one attempt";
    EXPECT_EQ(all(TagAppNone), "3121 0");
    const OpenPrompt prompt;
    std::uint64_t start = place.clock->nowMs();
    EXPECT_EQ(one(TagAppNone), "3122");
    EXPECT_NEAR(static_cast<double>(place.clock->nowMs() - start), 30000.0, 200.0);
    place.settings("WAITTIME=5000\n");
    place.adaptor->loadReaderConfig();
    start = place.clock->nowMs();
    EXPECT_EQ(all(TagAppNone), "3122 0");
    EXPECT_NEAR(static_cast<double>(place.clock->nowMs() - start), 5000.0, 200.0);
    place.adaptor->resetSuspendTime(1000);
    int waits = 0;
    place.clock->duringWait([&] {
        if (++waits == 3) cancelTagPrompt(), place.awaitPromptEnd();
    });
    EXPECT_EQ(one(TagAppNone), "3121") << "cancelled";
    waits = 0;
    place.clock->duringWait([&] {
        if (++waits == 3) place.placeClassic({7, 7, 7, 7});
    });
    EXPECT_EQ(one(TagAppNone), "3100 07070707") << "it came while we waited";
    place.clock->duringWait({});
    place.reader->field().clear();
    for (const char* none : {"WAITTIME=0\n", "WAITTIME=abc\n", "WAITTIME=-5\n"}) {
        place.settings(none);
        place.adaptor->loadReaderConfig();
        const std::uint32_t commands = place.reader->commandCount(0x4A);
        EXPECT_EQ(one(TagAppNone), "3122");
        EXPECT_EQ(place.reader->commandCount(0x4A), commands) << "no attempt at all";
    }
    place.adaptor->resetSuspendTime(700);
    place.settings("TAGPROMPT=1\n");
    place.adaptor->loadReaderConfig();
    start = place.clock->nowMs();
    EXPECT_EQ(one(TagAppNone), "3122");
    EXPECT_NEAR(static_cast<double>(place.clock->nowMs() - start), 30000.0, 200.0) << "a missing key is its default";
}

TEST_F(Search, WaitsForAKnownTagToComeBack) {
    place.reader->field().setPresent(place.name, false);
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kCancelled);
    const OpenPrompt prompt;
    int waits = 0;
    place.clock->duringWait([&] {
        if (++waits == 5) place.reader->field().setPresent(place.name, true);
    });
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kOk);
    place.clock->duringWait({});
    place.reader->field().setPresent(place.name, false);
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kWaitOver);
}

TEST_F(Search, NeedsAReader) {
    place.adaptor->stopReader();
    EXPECT_EQ(one(TagAppNone), "3137");
    EXPECT_EQ(all(TagAppNone), "3137 -1");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kReaderNotReady);
}

TEST_F(Search, EndsOnATagThatNeverSleeps) {
    place.reader->addFaults("4A from 1 tag blinks");
    const std::uint32_t before = place.reader->commandCount(0x4A);
    EXPECT_EQ(all(TagAppNone).substr(0, 9), "3100 4096");
    EXPECT_EQ(one(TagAppMad1), "3130");
    EXPECT_LE(place.reader->commandCount(0x4A) - before, 7u * 4100u);
}

TEST_F(Search, LooksTwiceAtATagThatIsSaidToBeAwake) {
    place.reader->addFaults("4A 1 already awake");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kOk);
    place.reader->clearFaults();
    place.reader->addFaults("4A 1 already awake\n4A 2 already awake");
    EXPECT_NE(place.read(TagAppNone, 0, 4, 1, kFactory), kNoTag) << "if the reader stays with it, so do we";
    EXPECT_EQ(place.tag.getTagType(), kTagStandard) << "and the tag keeps its type";
}

}  // namespace
