// The lock between threads and processes.

#include "NamedMutex.h"

#include "ForkedChild.h"
#include "LockDirectory.h"
#include "TempDirectory.h"

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using platform::NamedMutex;
using namespace std::chrono_literals;

namespace {

constexpr char kName[] = "qvl-lock";
constexpr uid_t kNobody = 65534;

class NamedMutexTest : public testing::Test {
  protected:
    NamedMutexTest() { platform::setNamedMutexDirectory(mDirectory.path().c_str()); }
    ~NamedMutexTest() override { platform::setNamedMutexDirectory(nullptr); }

    TempDirectory mDirectory;
};

/// Memory that forked children share; new at each call, and kept.
void* shared() { return ::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0); }

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
    volatile int* counter = static_cast<volatile int*>(shared());
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

TEST_F(NamedMutexTest, WaitsWhereTheSystemSeesACircle) {
    NamedMutex first(kName), second("second");
    Signpost held, wanted;
    std::atomic<bool>& isFree = *new (shared()) std::atomic<bool>(false);
    first.lock();
    ForkedChild other([&] {
        second.lock();
        held.post();
        wanted.await();
        first.lock();
        return isFree ? 0 : 1;
    });
    ASSERT_TRUE(held.await());
    std::thread waiter([&] {
        wanted.post();
        second.lock();
        second.unlock();
    });
    std::this_thread::sleep_for(50ms);
    isFree = true;
    first.unlock();
    EXPECT_EQ(other.wait(), 0);
    waiter.join();
}

TEST_F(NamedMutexTest, LongWaitNamesTheHolderOnce) {
    NamedMutex mutex(kName);
    Signpost held, release;
    std::vector<long> told;
    const auto wait = [&](auto free) {
        mutex.lock([&](long pid) {
            told.push_back(pid);
            free();
            throw 1;
        });
        mutex.unlock();
    };
    mutex.lock([&](long) { told.push_back(-1); });
    platform::setNamedMutexLongWait(5ms);
    Signpost tell;
    std::thread waiter([&] { wait([&] { tell.post(); }); });
    ASSERT_TRUE(tell.await());
    mutex.unlock();
    waiter.join();
    EXPECT_THAT(told, testing::ElementsAre(::getpid())) << "another thread has it";

    ForkedChild owner([&] {
        NamedMutex own(kName);
        own.lock();
        held.post();
        release.await();
        own.unlock();
        return 0;
    });
    ASSERT_TRUE(held.await());
    wait([&] { release.post(); });
    EXPECT_EQ(told.size(), 2u);
    EXPECT_EQ(told.back(), owner.id());
    EXPECT_EQ(owner.wait(), 0);
    platform::setNamedMutexLongWait(2s);
    mutex.lock([&](long) { told.clear(); });
    EXPECT_EQ(told.size(), 2u) << "nobody is told of a free lock";
    mutex.unlock();
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

TEST_F(NamedMutexTest, GroupOfTheMachineComesFirst) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs a directory of root";
    const std::string run = mDirectory.path(), ofGroup = run + "/qvlreader", lock = run + "/lock";
    EXPECT_EQ(platform::systemLockDirectory(run), "/tmp");
    fs::create_directory(lock);
    EXPECT_EQ(platform::systemLockDirectory(run), "/tmp") << "root's alone";
    ::chmod(lock.c_str(), 01777);
    EXPECT_EQ(platform::systemLockDirectory(run), lock);
    fs::create_directory(ofGroup);
    const struct {
        mode_t mode;
        uid_t owner;
        bool chosen;
        mode_t fileMode;
    } cases[] = {{0770, 0, true, 0660}, {02775, 0, true, 0660}, {01777, 0, false, 0666}, {0770, kNobody, false, 0666}};
    for (const auto& c : cases) {
        ASSERT_EQ(::chown(ofGroup.c_str(), c.owner, 7), 0);
        ::chmod(ofGroup.c_str(), c.mode);
        EXPECT_EQ(platform::systemLockDirectory(run), c.chosen ? ofGroup : lock) << std::oct << c.mode;
        platform::setNamedMutexDirectory(ofGroup.c_str());
        const std::string name = std::to_string(&c - cases);
        EXPECT_TRUE(NamedMutex(name.c_str()).isMachineWide());
        struct stat status;
        ASSERT_EQ(::stat((ofGroup + '/' + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, c.fileMode) << std::oct << c.mode;
        EXPECT_TRUE(!c.chosen || status.st_gid == 7);
    }
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
