// Asking for tags: any tag, a tag with a directory, a tag with an application, all tags.

#include "TagWorkplace.h"

namespace {

class Search : public ::testing::Test {
  protected:
    std::string one(TagAppType kind, short app = 0, bool halt = false) {
        return std::to_string(place.findTag(kind, app, halt)) + place.foundTags;
    }
    std::string all(TagAppType kind, short app = 0) {
        const int status = place.findAll(kind, app);
        return std::to_string(status) + " " + std::to_string(place.foundCount) + place.foundTags;
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
    ASSERT_EQ(place.init(100, 1), kOk);
    place.reader->field().clear();
    place.placeClassic({1, 2, 3, 4});
    place.reader->field().place(place.virtualTag);
    EXPECT_EQ(one(TagAppMad1), "3100 deadbeef") << "the first one has no directory";
    EXPECT_EQ(one(TagAppMad1, 100), "3100 deadbeef");
    EXPECT_EQ(all(TagAppMad1, 100), "3100 1 deadbeef");
    EXPECT_EQ(one(TagAppMad1, 101), "3130");
    EXPECT_EQ(all(TagAppMad1, 101), "3100 0");
    EXPECT_EQ(one(TagAppMad1, 5), "3021");
    EXPECT_EQ(all(TagAppMad1, 5), "3021 -1");
}

TEST_F(Search, WaitsOnlyUnderAPrompt) {
    place.reader->field().clear();
    const std::uint32_t before = place.heard(Op::request);
    EXPECT_EQ(one(TagAppNone), "3121");
    EXPECT_EQ(place.heard(Op::request), before + 1) << "one attempt";
    EXPECT_EQ(all(TagAppNone), "3121 0");
    const OpenPrompt prompt;
    const std::uint64_t start = place.clock->nowMs();
    EXPECT_EQ(one(TagAppNone), "3122");
    EXPECT_NEAR(static_cast<double>(place.clock->nowMs() - start), 30000.0, 200.0);
    place.adaptor->resetSuspendTime(1000);
    place.clock->duringWait([&, waits = 0]() mutable {
        if (++waits == 3) cancelTagPrompt(), place.awaitPromptEnd();
    });
    EXPECT_EQ(one(TagAppNone), "3121") << "cancelled";
    place.clock->duringWait([&, waits = 0]() mutable {
        if (++waits == 3) place.placeClassic({7, 7, 7, 7});
    });
    EXPECT_EQ(one(TagAppNone), "3100 07070707") << "it came while we waited";
    place.clock->duringWait({});
    place.reader->field().clear();
    place.loadSettings("WAITTIME=abc\n");
    const std::uint32_t commands = place.heard(Op::request);
    EXPECT_EQ(one(TagAppNone), "3122");
    EXPECT_EQ(place.heard(Op::request), commands) << "no attempt at all";
}

TEST_F(Search, NeedsAReader) {
    place.adaptor->stopReader();
    EXPECT_EQ(one(TagAppNone), "3137");
    EXPECT_EQ(all(TagAppNone), "3137 -1");
    EXPECT_EQ(place.read(kPlain, 4, 1, kFactory.data()), kReaderNotReady);
}

TEST_F(Search, EndsOnATagThatNeverSleeps) {
    place.spoil(Op::request, "from 1 tag blinks");
    place.spoil(Op::activate, "from 1 tag blinks");
    const std::uint32_t before = place.heard(Op::request);
    EXPECT_EQ(all(TagAppNone).substr(0, 9), "3100 4096");
    EXPECT_EQ(one(TagAppMad1), "3130");
    EXPECT_LE(place.heard(Op::request) - before, 7u * 4100u);
}

}  // namespace
