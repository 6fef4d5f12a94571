// Opening, waiting, watching: who waits how long for what, and how each wait ends.

#include "Field.h"

#include <csignal>
#include <fcntl.h>
#include <future>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using qvl::Limit;
using qvl::Reason;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> uids(const std::vector<qvl::Tag>& tags) {
    std::vector<std::string> texts;
    for (const qvl::Tag& tag : tags)
        texts.push_back(tag.uid().text());
    return texts;
}

/// Another program that holds the lock of all readers.
class Holder {
  public:
    Holder() {
        int ready[2];
        if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
        mProcess = ::fork();
        if (mProcess == 0) {
            const int file = ::open("/run/lock/QUORVELREADER_MUTEX", O_RDWR);
            struct flock whole {};
            whole.l_type = F_WRLCK;
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::fcntl(file, F_SETLKW, &whole);
            [[maybe_unused]] const auto written = ::write(ready[1], "x", 1);
            ::pause();
            ::_exit(0);
        }
        char byte = 0;
        [[maybe_unused]] const auto read = ::read(ready[0], &byte, 1);
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~Holder() {
        ::kill(mProcess, SIGKILL);
        ::waitpid(mProcess, nullptr, 0);
    }
    pid_t process() const { return mProcess; }

  private:
    pid_t mProcess = -1;
};

TEST(TheReaderLayer, FindsTagsByWhatIsAskedForAmongOthers) {
    Field field({"new:1k:11223344", "new:4k:55667788", "new:ultralight:04aabbccddeeff"});
    EXPECT_THAT(uids(field.reader.tags()), ::testing::UnorderedElementsAre("11223344", "55667788", "04aabbccddeeff"));
    EXPECT_EQ(field.reader.waitForTag(qvl::Uid::parse("55667788"), 5s).typeName(), std::string("Mifare 4K"));

    const qvl::Key master = qvl::Key::parse("0a0b0c0d0e0f");
    field.simulator.takeAway("tag2");
    field.simulator.takeAway("tag3");
    const qvl::Tag tag = field.reader.waitForTag(5s);
    tag.format(master).orThrow();
    tag.createApplication(0x4711, 1, master, {qvl::Key::factory(), master});
    field.simulator.bringBack("tag2");
    field.simulator.takeAway("tag1");
    // It is waited for while another tag rests on the reader.
    std::jthread later([&] {
        std::this_thread::sleep_for(300ms);
        field.simulator.bringBack("tag1");
    });
    EXPECT_EQ(field.reader.waitForTag(qvl::ApplicationQuery{0x4711}, kPatience).uid().text(), "11223344");
    EXPECT_EQ(field.reader.identity().model, isMf500UnderTest() ? "MF RC500" : "PN531");
    field.reader.setLight(2, true);
    expectError(Reason::badArgument, "lights 0 to 3", [&] { field.reader.setLight(4, true); });
    if (isMf500UnderTest())
        expectError(Reason::notSupported, "does not offer", [&] { field.reader.relay(qvl::Bytes{0x02}); });
    else
        EXPECT_THAT(field.reader.relay(qvl::Bytes{0x02}), ElementsAre(0x03, 4, 2));
}

TEST(TheReaderLayer, EndsEachWaitAsItsLimitSays) {
    Field field({});
    const auto wait = [&](const Limit& limit) { return [&field, limit] { field.reader.waitForTag(limit); }; };
    EXPECT_TRUE(field.reader.tags().empty());
    expectError(Reason::noTag, "no tag came", wait(Limit::now()));
    expectError(Reason::timedOut, "no tag came", wait(200ms));
    expectError(Reason::timedOut, "did not come", [&] { field.reader.waitForTag(qvl::Uid::parse("01020304"), 200ms); });
    expectError(Reason::timedOut, "no card came", [&] { field.reader.waitForCard(200ms); });

    std::stop_source stop;
    std::jthread stopper([&] {
        std::this_thread::sleep_for(200ms);
        stop.request_stop();
    });
    expectError(Reason::cancelled, "cancelled", wait(stop.get_token()));
    expectError(Reason::cancelled, "cancelled", wait(Limit(kPatience, stop.get_token())));

    int questions = 0;
    expectError(Reason::cancelled, "cancelled", wait(Limit().asking([&] { return ++questions < 3; })));
    EXPECT_EQ(questions, 3);
    EXPECT_THROW(wait(Limit().asking([]() -> bool { throw std::domain_error("mine"); }))(), std::domain_error);
    // A question must not begin an operation of its own.
    expectError(Reason::badArgument, "cannot begin another",
                wait(Limit().asking([&] { return field.reader.tags().empty(); })));
    EXPECT_TRUE(field.reader.tags().empty()) << "usable after all of that";
}

TEST(TheReaderLayer, NamesTheProgramThatHasTheReader) {
    Field field({"new:1k"});
    const Holder holder;
    const std::string name = "process " + std::to_string(holder.process());
    expectError(Reason::readerBusy, name, [&] { field.reader.tags(300ms); });
    expectError(Reason::readerBusy, name, [&] { field.reader.waitForTag(300ms); });
    expectError(Reason::readerBusy, name, [&] { field.reader.watch().next(300ms); });
    expectError(Reason::readerBusy, name, [&] { qvl::Reader(300ms); });
    expectError(Reason::cancelled, "cancelled", [&] { field.reader.tags(Limit().asking([] { return false; })); });
}

TEST(TheReaderLayer, SaysWhereItLookedForAReader) {
    qvl::VirtualReader simulator(readerWith());
    simulator.unplug();
    expectError(Reason::noReader, simulator.root(), [] { qvl::Reader(300ms); });
    std::jthread later([&] {
        std::this_thread::sleep_for(300ms);
        simulator.plugIn();
    });
    EXPECT_NO_THROW(qvl::Reader{kPatience});
}

TEST(TheReaderLayer, WatchesTagsAndTheReader) {
    Field field({"new:1k:11223344"});
    qvl::Watch watch = field.reader.watch();
    const auto next = [&] {
        const auto event = watch.next(kPatience);
        return event ? name(event->kind) + (" " + event->uid.text()) : "none";
    };
    EXPECT_EQ(next(), "tag arrived 11223344");
    EXPECT_FALSE(watch.next(300ms)) << "nothing happened";
    field.simulator.place("new:4k:55667788", "second");
    EXPECT_EQ(next(), "tag arrived 55667788");
    field.reader.waitForTag(qvl::Uid::parse("55667788"), kPatience).read(1);  // its own work is no event
    EXPECT_FALSE(watch.next(300ms));
    field.simulator.takeAway("second");
    EXPECT_EQ(next(), "tag left 55667788");
    field.simulator.takeAway("tag1");  // and back before anybody looks
    field.simulator.bringBack("tag1");
    EXPECT_EQ(next(), "tag left 11223344");
    EXPECT_EQ(next(), "tag arrived 11223344");

    field.simulator.unplug();
    EXPECT_EQ(next(), "reader lost ");
    EXPECT_FALSE(watch.next(300ms)) << "no tag leaves a reader that is lost";
    field.simulator.plugIn();
    EXPECT_EQ(next(), "reader back ");
    EXPECT_FALSE(watch.next(500ms)) << "the tag was there all the time";

    std::vector<std::string> all;
    for (const qvl::Event& event : field.reader.watch(3s))
        all.push_back(event.uid.text());
    EXPECT_THAT(all, ElementsAre("11223344"));
    std::stop_source stop;
    stop.request_stop();
    EXPECT_FALSE(watch.next(stop.get_token()));
}

TEST(TheReaderLayer, ClosesUnderEverything) {
    Field field({"new:1k:11223344", "new:card"});
    const qvl::Tag tag = field.reader.waitForTag(qvl::Uid::parse("11223344"), kPatience);
    qvl::Card card = field.reader.waitForCard(kPatience);
    qvl::Watch watch = field.reader.watch();
    auto waiting = std::async(std::launch::async, [&] { field.reader.waitForCard(qvl::Uid::parse("99999999")); });
    std::this_thread::sleep_for(200ms);
    field.reader.close();
    expectError(Reason::noReader, "closed", [&] { waiting.get(); });
    field.reader.close();
    expectError(Reason::noReader, "closed", [&] { field.reader.tags(); });
    expectError(Reason::noReader, "closed", [&] { tag.read(4); });
    expectError(Reason::noReader, "closed", [&] { tag.application(0x4711).readAll(); });
    expectError(Reason::noReader, "closed", [&] { card.transmit(qvl::Bytes{0}); });
    expectError(Reason::noReader, "closed", [&] { watch.next(1s); });
    expectError(Reason::noReader, "closed", [&] { card.close(); });

    qvl::Reader again{kPatience};
    qvl::Reader moved = std::move(again);
    expectError(Reason::noReader, "closed", [&] { again.tags(); });  // NOLINT(bugprone-use-after-move)
    expectError(Reason::noReader, "closed", [&] { again.watch().next(1s); });
    EXPECT_EQ(moved.tags(kPatience).size(), 2U);
}

TEST(TheReaderLayer, ServesManyThreads) {
    Field field({"new:1k:11223344"});
    const qvl::Tag tag = field.reader.waitForTag(kPatience);
    std::atomic<int> done = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] {
                const qvl::Bytes mine(16, static_cast<std::uint8_t>(i));
                for (int round = 0; round < 3; ++round) {
                    tag.write(4 + (i % 3), mine, {}, kPatience).orThrow();
                    done += static_cast<int>(tag.read(4 + (i % 3), 1, {}, kPatience).bytes().size()) / 16;
                }
            });
        qvl::Watch watch = field.reader.watch();
        while (done < 12)
            if (const auto event = watch.next(1s)) {
                EXPECT_EQ(event->kind, qvl::Event::Kind::tagArrived);
            }
    }
    EXPECT_EQ(done, 12);
}

}  // namespace
