// The lock between threads and processes.

#include "NamedMutex.h"

#include "ForkedChild.h"
#include "TempDirectory.h"

#include <array>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;
using platform::NamedMutex;

namespace {

constexpr char kName[] = "qvl-lock";
constexpr uid_t kNobody = 65534;

class NamedMutexTest : public testing::Test {
  protected:
    NamedMutexTest() { platform::setNamedMutexDirectory(mDirectory.path().c_str()); }
    ~NamedMutexTest() override { platform::setNamedMutexDirectory(nullptr); }

    TempDirectory mDirectory;
};

bool canTake(NamedMutex& mutex) {
    if (!mutex.try_lock()) return false;
    mutex.unlock();
    return true;
}

bool otherThreadCanTake(NamedMutex& mutex) {
    bool result = false;
    std::thread([&] { result = canTake(mutex); }).join();
    return result;
}

TEST_F(NamedMutexTest, IsFreeAfterTheLastUnlockOnly) {
    NamedMutex mutex(kName), again(kName), other("another");
    for (int i = 0; i < 3; ++i)
        (i == 1 ? again : mutex).lock();
    EXPECT_TRUE(mutex.try_lock());
    std::thread([&] { mutex.unlock(); }).join();  // not its to unlock
    for (int i = 0; i < 4; ++i) {
        EXPECT_FALSE(otherThreadCanTake(again)) << i;
        EXPECT_TRUE(otherThreadCanTake(other)) << i;
        EXPECT_EQ(ForkedChild([&] { return canTake(mutex); }).wait(), 0) << i;
        mutex.unlock();
    }
    EXPECT_TRUE(otherThreadCanTake(again));
    EXPECT_EQ(ForkedChild([&] { return canTake(mutex); }).wait(), 1);
}

TEST_F(NamedMutexTest, OrdersThreadsThatNest) {
    NamedMutex mutex(kName);
    int inside = 0, total = 0;
    bool overlapped = false;
    std::array<std::thread, 8> threads;
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            for (int round = 0; round < 300; ++round) {
                const std::lock_guard outer(mutex), inner(mutex);
                overlapped = overlapped || ++inside != 1;
                const std::lock_guard innermost(mutex);
                ++total;
                --inside;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(total, 8 * 300);
}

TEST_F(NamedMutexTest, OrdersProcesses) {
    void* shared = ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    volatile int* counter = static_cast<volatile int*>(shared);
    const auto countUp = [counter] {
        NamedMutex mutex(kName);
        for (int round = 0; round < 500; ++round) {
            const std::lock_guard lock(mutex);
            const int seen = *counter;
            std::this_thread::yield();
            *counter = seen + 1;
        }
        return 0;
    };
    {
        ForkedChild children[] = {ForkedChild(countUp), ForkedChild(countUp), ForkedChild(countUp),
                                  ForkedChild(countUp)};
        for (ForkedChild& child : children)
            EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_EQ(*counter, 4 * 500);
    ::munmap(shared, sizeof(int));
}

TEST_F(NamedMutexTest, KilledOwnerLeavesTheLockToThoseWhoWait) {
    for (const int depth : {1, 2, 3}) {
        Signpost held, waiting;
        ForkedChild owner([&] {
            NamedMutex mutex(kName);
            for (int i = 0; i < depth; ++i)
                mutex.lock();
            held.post();
            return ::pause();
        });
        ASSERT_TRUE(held.await());
        ForkedChild waiter([&] {
            NamedMutex mutex(kName);
            if (mutex.try_lock()) return 1;
            waiting.post();
            ::alarm(1);
            const std::lock_guard lock(mutex);
            return 0;
        });
        ASSERT_TRUE(waiting.await());
        owner.kill();
        EXPECT_EQ(waiter.wait(), 0);
        NamedMutex mutex(kName);
        EXPECT_TRUE(canTake(mutex));
    }
}

TEST_F(NamedMutexTest, ForkedChildNeverOwnsItWhateverThreadHoldsIt) {
    for (const bool heldByForker : {true, false}) {
        NamedMutex mutex(kName);
        Signpost held, release, released, tried;
        const auto hold = [&](auto meanwhile) {
            const std::lock_guard lock(mutex), again(mutex);
            meanwhile();
        };
        std::unique_ptr<ForkedChild> child;
        const auto fork = [&] {
            child = std::make_unique<ForkedChild>([&] {
                mutex.unlock();  // as the end of a scope of the parent would
                if (mutex.try_lock()) return 1;
                tried.post();
                released.await();
                const std::lock_guard own(mutex);
                return mutex.try_lock() ? 0 : 2;
            });
            EXPECT_TRUE(tried.await());
        };
        if (heldByForker) {
            hold(fork);
        } else {
            std::thread owner([&] {
                hold([&] {
                    held.post();
                    release.await();
                });
            });
            EXPECT_TRUE(held.await());
            fork();
            release.post();
            owner.join();
        }
        released.post();
        EXPECT_EQ(child->wait(), 0);
        EXPECT_TRUE(otherThreadCanTake(mutex));
    }
}

TEST_F(NamedMutexTest, PlantedLockFileCostsAtMostTheOrderBetweenProcesses) {
    const std::string content("\0\xFF planted \n", 12), victim = mDirectory / "victim";
    const struct {
        const char* name;
        std::function<void(const std::string&)> plant;
        bool machineWide;
    } cases[] = {
        {"nothing", [](auto&) {}, true},
        {"content", [&](auto&) { mDirectory.write("content", content); }, true},
        {"dangling", [&](auto& place) { fs::create_symlink(victim, place); }, false},
        {"link", [&](auto& place) { fs::create_symlink(mDirectory.write("real", content), place); }, false},
        {"directory", [](auto& place) { fs::create_directory(place); }, false},
        {"fifo", [](auto& place) { ::mkfifo(place.c_str(), 0666); }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.plant(mDirectory / c.name);
        NamedMutex mutex(c.name);
        EXPECT_EQ(mutex.isMachineWide(), c.machineWide);
        mutex.lock();
        EXPECT_TRUE(mutex.try_lock());
        EXPECT_FALSE(otherThreadCanTake(mutex));
        mutex.unlock();
        mutex.unlock();
        EXPECT_TRUE(otherThreadCanTake(mutex));
    }
    EXPECT_EQ(mDirectory.read("content") + mDirectory.read("real"), content + content);
    EXPECT_FALSE(fs::exists(victim));
}

TEST_F(NamedMutexTest, IsSharedByUsersWhateverTheUmask) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs a second user";
    fs::permissions(mDirectory.path(), fs::perms::all);
    const auto nobodySeesIt = [](const char* name) {
        return ForkedChild([name] { return ::setuid(kNobody) == 0 && NamedMutex(name).isMachineWide(); }).wait();
    };
    EXPECT_EQ(ForkedChild([] {
                  ::umask(0777);
                  return NamedMutex(kName).isMachineWide();
              }).wait(),
              1);
    EXPECT_EQ(nobodySeesIt(kName), 1);
    fs::permissions(mDirectory.write("private", ""), fs::perms::owner_read);
    EXPECT_EQ(nobodySeesIt("private"), 0);
}

}  // namespace
