// Following tags, and the ways to end it.

#include "QvltagFixture.h"

namespace {

constexpr const char* kClock = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]  ";

std::string isoNow() {
    char text[32];
    const std::time_t now = std::time(nullptr);
    return {text, std::strftime(text, sizeof text, "%FT%TZ", std::gmtime(&now))};
}

TEST_F(QvltagTest, PollTellsOfEachTagOnce) {
    const Words twoTags{"--virtual", classicImage(), "--virtual", ultralightImage(), "poll", "--count", "2"};
    const Result text = run(twoTags);
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_THAT(text.out, MatchesRegex(std::string(kClock) + "tag arrived  01020304  Mifare Standard\n" + kClock +
                                       "tag arrived  04213243546576  Mifare Ultralight\n"));
    const std::string before = isoNow();
    const auto all = exactly(2, runJson(twoTags, 0));
    const std::string time = all[0].value("time", "");
    EXPECT_TRUE(before <= time && time <= isoNow()) << time;
    EXPECT_EQ(all[0],
              Json({{"event", "tag arrived"}, {"time", time}, {"uid", "01020304"}, {"type", "Mifare Standard"}}));
    EXPECT_EQ(all[1].value("uid", ""), "04213243546576");
}

TEST_F(QvltagTest, ForcedPollTellsOfAllTagsInEveryRound) {
    std::string uids;
    for (const Json& each :
         runJson({"--virtual", classicImage(), "--virtual", ultralightImage(), "poll", "--forced", "--count", "5"}, 0))
        uids += each.value("uid", "") + " ";
    EXPECT_EQ(uids, "01020304 04213243546576 01020304 04213243546576 01020304 ");
}

TEST_F(QvltagTest, PollEndsAsItsOptionsSay) {
    const auto reader = plugReaderIn();
    const Json nothing = only(runJson({"poll", "--once"}, 1));
    EXPECT_EQ(nothing.value("error", ""), "no tag");
    EXPECT_EQ(nothing.value("status", 0), 3104);
    EXPECT_TRUE(runJson({"poll", "--for", "0.01"}, 0).empty());
    EXPECT_EQ(only(runJson({"poll", "--for", "0.01", "--count", "1"}, 1)).value("status", 0), 3122);

    EXPECT_EQ(reader->ask("place new:1k"), "ok tag1");
    EXPECT_EQ(only(runJson({"poll", "--once"}, 0)).value("uid", ""), "deadbeef");
    EXPECT_EQ(only(runJson({"poll", "--once", "--forced", "--no-wait"}, 0)).value("uid", ""), "deadbeef");
    const auto tooFew = exactly(2, runJson({"poll", "--for", "1", "--count", "2"}, 1));
    EXPECT_EQ(tooFew[1].value("error", ""), "wait over");
}

TEST_F(QvltagTest, PollTellsOfAReaderThatGoesAndComes) {
    for (const Words& arguments : {Words{"poll"}, Words{"poll", "--forced"}}) {
        const auto reader = plugReaderIn();
        EXPECT_EQ(reader->ask("place new:1k"), "ok tag1");
        const auto child = start(arguments);
        std::string line = child->line();
        EXPECT_THAT(line, HasSubstr("deadbeef"));
        EXPECT_EQ(reader->ask("reader gone"), "ok");
        do
            line = child->line();
        while (line.find("deadbeef") != std::string::npos);
        EXPECT_THAT(line, MatchesRegex(std::string(kClock) + "reader lost"));
        EXPECT_EQ(reader->ask("reader back"), "ok");
        EXPECT_THAT(child->line(), MatchesRegex(std::string(kClock) + "reader back"));
        EXPECT_EQ(reader->ask("remove tag1"), "ok");
        EXPECT_EQ(reader->ask("place new:1k:cafebabe"), "ok tag2");
        do
            line = child->line();
        while (line.find("deadbeef") != std::string::npos);  // which leaves, or is told once more
        EXPECT_THAT(line, HasSubstr("cafebabe"));
        child->signalGroup(SIGINT);
        EXPECT_EQ(child->wait(), 0);
    }
}

TEST_F(QvltagTest, CtrlCEndsPollAndTheVirtualReader) {
    const std::tuple<Words, int, int> kEndings[] = {{{}, SIGINT, 0},
                                                    {{"--for", "600"}, SIGTERM, 0},
                                                    {{"--count", "2"}, SIGINT, 1},
                                                    {{"--count", "2", "--for", "600"}, SIGHUP, 1}};
    for (const auto& [options, signal, status] : kEndings) {
        const auto child = start(joined({"--virtual", classicImage(), "poll"}, options));
        EXPECT_THAT(child->line(), HasSubstr("01020304"));
        EXPECT_FALSE(std::filesystem::is_empty(place / "tmp"));
        child->signalGroup(signal);
        EXPECT_EQ(child->rest(), "") << "the virtual reader must outlive the poll";
        EXPECT_EQ(child->wait(), status);
        EXPECT_TRUE(child->allGone(0));
        EXPECT_EQ(child->rest(ChildProgram::errors).find("cancelled") != std::string::npos, status == 1);
        EXPECT_TRUE(std::filesystem::is_empty(place / "tmp"));
    }
}

TEST_F(QvltagTest, PollEndsWhenNobodyReads) {
    const auto child = start({"--virtual", "new:1k", "poll", "--forced"});
    child->line();
    child->close(ChildProgram::output);
    EXPECT_EQ(child->wait(), 1);
}

TEST_F(QvltagTest, TheVirtualReaderNeverStaysBehind) {
    const auto child = start({"--virtual", "new:1k", "poll"});
    child->line();
    EXPECT_FALSE(child->allGone(0));
    child->signalGroup(SIGKILL);
    EXPECT_EQ(child->wait(), -1);
    EXPECT_TRUE(child->allGone(ChildProgram::kPatienceMs));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place / "tmp"))
        EXPECT_FALSE(entry.is_socket()) << "the signal reached the virtual reader before it could clean up";
    std::filesystem::remove_all(place / "tmp");
    std::filesystem::create_directory(place / "tmp");
}

}  // namespace
