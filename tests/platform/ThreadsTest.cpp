// Time, events and threads.

#include "CancellationOff.h"
#include "Clock.h"
#include "CountedThreads.h"
#include "ManualClock.h"
#include "ManualResetEvent.h"
#include "PlatformTest.h"
#include "Process.h"

#include <memory>
#include <pthread.h>

namespace {

TEST(ClockTest, CanBeReplacedAndPutBack) {
    Clock& own = Clock::current();
    {
        ManualClock driven;
        driven.advance(0xFFFFFFF0ull - driven.nowMs());
        Clock::current().pauseMs(60000);
        EXPECT_EQ(Clock::current().nowMs(), 0xFFFFFFF0ull + 60000);
        EXPECT_EQ(Clock::current().tick(), 60000u - 16u);
    }
    EXPECT_EQ(&Clock::current(), &own);
}

TEST(ClockTest, SystemClockPassesRealTime) {
    Clock& clock = Clock::current();
    ManualResetEvent event;
    const std::uint64_t start = clock.nowMs();
    clock.pauseMs(15);
    EXPECT_FALSE(clock.waitFor(event, 15));
    EXPECT_GE(clock.nowMs() - start, 29u);
}

TEST(ClockTest, LocalTimeIsTheWallClock) {
    const std::time_t before = wallSeconds();
    const LocalTime now = localTime();
    std::tm parts{now.second, now.minute, now.hour, now.day, now.month - 1, now.year - 1900, 0, 0, -1, 0, nullptr};
    const std::time_t told = std::mktime(&parts);
    EXPECT_TRUE(told >= before && told <= static_cast<std::time_t>(wallSeconds()));
    EXPECT_TRUE(now.millisecond >= 0 && now.millisecond < 1000);
}

TEST(ManualResetEventTest, StaysSetForAllUntilReset) {
    ManualResetEvent event;
    std::atomic<int> woken = 0;
    CountedThreads threads;
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(threads.start([&] { woken += event.waitFor(std::chrono::milliseconds(kLongMs)); }));
    EXPECT_EQ(woken, 0);
    event.set();
    threads.waitUntilNone();
    EXPECT_EQ(woken, 4);
    EXPECT_TRUE(event.isSet() && event.waitFor(0ms));
    event.reset();
    EXPECT_FALSE(event.isSet() || event.waitFor(5ms));
}

TEST(CountedThreadsTest, EndWaitsForAllAndForWhatTheyHold) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> ended = 0;
        const auto held = std::make_shared<int>(0);
        {
            auto threads = std::make_unique<CountedThreads>();
            for (int i = 0; i < 3; ++i)
                ASSERT_TRUE(threads->start([&ended, held] {
                    std::this_thread::yield();
                    ++ended;
                }));
        }
        ASSERT_EQ(ended, 3);
        ASSERT_EQ(held.use_count(), 1);
    }
}

TEST(CountedThreadsTest, StartThatFailsIsReportedAndNotCounted) {
    pthread_attr_t former, impossible;
    ASSERT_EQ(::pthread_getattr_default_np(&former), 0);
    ::pthread_attr_init(&impossible);
    ::pthread_attr_setstacksize(&impossible, std::size_t{1} << 62);
    ASSERT_EQ(::pthread_setattr_default_np(&impossible), 0);
    bool ran = false;
    CountedThreads threads;
    EXPECT_FALSE(threads.start([&] { ran = true; }));
    ::pthread_setattr_default_np(&former);
    threads.waitUntilNone();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(threads.start([&] { ran = true; }));
    threads.waitUntilNone();
    EXPECT_TRUE(ran);
    ::pthread_attr_destroy(&former);
    ::pthread_attr_destroy(&impossible);
}

TEST(CancellationOffTest, HoldsACancellationBackUntilTheScopeEnds) {
    ManualResetEvent cancelled;
    std::atomic<bool> isPassed = false, isMissed = false;
    std::thread thread([&] {
        {
            const CancellationOff outer, inner;
            cancelled.waitFor(std::chrono::milliseconds(kLongMs));
            ::pthread_testcancel();
            isPassed = true;
        }
        ::pthread_testcancel();
        isMissed = true;
    });
    EXPECT_EQ(::pthread_cancel(thread.native_handle()), 0);
    cancelled.set();
    thread.join();
    EXPECT_TRUE(isPassed);
    EXPECT_FALSE(isMissed);
}

TEST(ProcessGenerationTest, DiffersInAForkedChildOnly) {
    const std::uint32_t own = processGeneration();
    EXPECT_EQ(ForkedChild([=] { return processGeneration() != own; }).wait(), 1);
    EXPECT_EQ(processGeneration(), own);
}

}  // namespace
