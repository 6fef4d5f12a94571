// The lock between threads and processes.

#include "NamedMutex.h"

#include "LockDirectory.h"
#include "PlatformTest.h"

#include <future>
#include <memory>
#include <mutex>
#include <sys/mman.h>

namespace {

constexpr char kName[] = "qvl-lock";
constexpr uid_t kNobody = 65534;

class NamedMutexTest : public testing::Test {
  protected:
    NamedMutexTest() { platform::setNamedMutexDirectory(mDirectory.path().c_str()); }
    ~NamedMutexTest() override { platform::setNamedMutexDirectory(nullptr); }

    /// A process that holds the lock until it is killed or released.
    ForkedChild holder(int depth = 1) {
        return ForkedChild([this, depth] {
            NamedMutex mutex(kName);
            for (int i = 0; i < depth; ++i)
                mutex.lock();
            mHeld.post();
            return mRelease.await() ? 0 : 1;
        });
    }

    TempDirectory mDirectory;
    Signpost mHeld, mRelease, mWaiting;
};

/// Memory that forked children share; new at each call, and kept.
void* shared() { return ::mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0); }

bool canTake(NamedMutex& mutex) {
    if (!mutex.try_lock()) return false;
    mutex.unlock();
    return true;
}

bool otherThreadCanTake(NamedMutex& mutex) { return std::async(std::launch::async, canTake, std::ref(mutex)).get(); }

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

TEST_F(NamedMutexTest, OrdersThreadsThatNestAndProcesses) {
    volatile int* counter = static_cast<volatile int*>(shared());
    const auto countUp = [counter](NamedMutex& mutex) {
        for (int round = 0; round < 300; ++round) {
            const std::lock_guard outer(mutex), inner(mutex);
            const int seen = *counter;
            std::this_thread::yield();
            const std::lock_guard innermost(mutex);
            *counter = seen + 1;
        }
    };
    const auto inChild = [&] {
        NamedMutex own(kName);
        countUp(own);
        return 0;
    };
    ForkedChild children[] = {ForkedChild(inChild), ForkedChild(inChild), ForkedChild(inChild)};
    NamedMutex mutex(kName);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 5; ++i)
            threads.emplace_back([&] { countUp(mutex); });
    }
    for (ForkedChild& child : children)
        EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(*counter, (3 + 5) * 300);
}

TEST_F(NamedMutexTest, KilledOwnerLeavesTheLockToThoseWhoWait) {
    for (const int depth : {1, 2, 3}) {
        ForkedChild owner = holder(depth);
        ASSERT_TRUE(mHeld.await());
        NamedMutex mutex(kName);
        ForkedChild waiter([&] {
            if (mutex.try_lock()) return 1;
            mWaiting.post();
            ::alarm(1);
            mutex.lock();
            return 0;
        });
        ASSERT_TRUE(mWaiting.await());
        owner.kill();
        EXPECT_EQ(waiter.wait(), 0);
        EXPECT_TRUE(canTake(mutex));
    }
}

TEST_F(NamedMutexTest, ForkedChildNeverOwnsItWhateverThreadHoldsIt) {
    for (const bool heldByForker : {true, false}) {
        NamedMutex mutex(kName);
        std::unique_ptr<ForkedChild> child;
        const auto fork = [&] {
            child = std::make_unique<ForkedChild>([&] {
                mutex.unlock();  // as the end of a scope of the parent would
                if (mutex.try_lock()) return 1;
                mWaiting.post();
                mRelease.await();
                const std::lock_guard own(mutex);
                return mutex.try_lock() ? 0 : 2;
            });
        };
        {
            const std::lock_guard lock(mutex), again(mutex);
            heldByForker ? fork() : std::thread(fork).join();
            EXPECT_TRUE(mWaiting.await());
        }
        mRelease.post();
        EXPECT_EQ(child->wait(), 0);
        EXPECT_TRUE(otherThreadCanTake(mutex));
    }
}

TEST_F(NamedMutexTest, WaitsWhereTheSystemSeesACircle) {
    NamedMutex first(kName), second("second");
    std::atomic<bool>& isFree = *new (shared()) std::atomic<bool>(false);
    first.lock();
    ForkedChild other([&] {
        second.lock();
        mHeld.post();
        mWaiting.await();
        first.lock();
        return isFree ? 0 : 1;
    });
    ASSERT_TRUE(mHeld.await());
    std::thread waiter([&] {
        mWaiting.post();
        const std::lock_guard lock(second);
    });
    std::this_thread::sleep_for(50ms);
    isFree = true;
    first.unlock();
    EXPECT_EQ(other.wait(), 0);
    waiter.join();
}

TEST_F(NamedMutexTest, LongWaitNamesTheHolderOnce) {
    NamedMutex mutex(kName);
    std::vector<long> told;
    const auto wait = [&](Signpost& free) {
        mutex.lock([&](long pid) {
            told.push_back(pid);
            free.post();
            throw 1;
        });
        mutex.unlock();
    };
    mutex.lock([&](long) { told.push_back(-1); });
    platform::setNamedMutexLongWait(5ms);
    std::thread waiter([&] { wait(mWaiting); });
    ASSERT_TRUE(mWaiting.await());
    mutex.unlock();
    waiter.join();
    ForkedChild owner = holder();
    const pid_t other = owner.id();
    ASSERT_TRUE(mHeld.await());
    wait(mRelease);
    EXPECT_EQ(owner.wait(), 0);
    platform::setNamedMutexLongWait(2s);
    mutex.lock([&](long) { told.clear(); });
    mutex.unlock();
    EXPECT_THAT(told, testing::ElementsAre(::getpid(), other))
        << "first another thread has it, then another process, and nobody is told of a free lock";
}

TEST_F(NamedMutexTest, PlantedLockFileCostsAtMostTheOrderBetweenProcesses) {
    const std::string content("\0\xFF planted \n", 12), victim = mDirectory / "victim";
    const std::tuple<const char*, std::function<void(const std::string&)>, bool> cases[] = {
        {"nothing", [](auto&) {}, true},
        {"content", [&](auto&) { mDirectory.write("content", content); }, true},
        {"dangling", [&](auto& place) { fs::create_symlink(victim, place); }, false},
        {"link", [&](auto& place) { fs::create_symlink(mDirectory.write("real", content), place); }, false},
        {"directory", [](auto& place) { fs::create_directory(place); }, false},
        {"fifo", [](auto& place) { ::mkfifo(place.c_str(), 0666); }, false},
    };
    for (const auto& [name, plant, machineWide] : cases) {
        SCOPED_TRACE(name);
        plant(mDirectory / name);
        NamedMutex mutex(name);
        EXPECT_EQ(mutex.isMachineWide(), machineWide);
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
    const std::tuple<mode_t, uid_t, bool, mode_t> cases[] = {
        {0770, 0, true, 0660}, {02775, 0, true, 0660}, {01777, 0, false, 0666}, {0770, kNobody, false, 0666}};
    for (const auto& [mode, owner, chosen, fileMode] : cases) {
        ASSERT_EQ(::chown(ofGroup.c_str(), owner, 7), 0);
        ::chmod(ofGroup.c_str(), mode);
        EXPECT_EQ(platform::systemLockDirectory(run), chosen ? ofGroup : lock) << std::oct << mode;
        platform::setNamedMutexDirectory(ofGroup.c_str());
        const std::string name = std::to_string(mode) + "." + std::to_string(owner);
        EXPECT_TRUE(NamedMutex(name.c_str()).isMachineWide());
        struct stat status;
        ASSERT_EQ(::stat((ofGroup + '/' + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, fileMode) << std::oct << mode;
        EXPECT_TRUE(!chosen || status.st_gid == 7);
    }
}

TEST_F(NamedMutexTest, IsSharedByUsersWhateverTheUmask) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs a second user";
    fs::permissions(mDirectory.path(), fs::perms::all);
    const auto sees = [](uid_t user, const char* name) {
        ::umask(0777);
        return ::setuid(user) == 0 && NamedMutex(name).isMachineWide();
    };
    EXPECT_EQ(ForkedChild([&] { return sees(0, kName); }).wait(), 1);
    EXPECT_EQ(ForkedChild([&] { return sees(kNobody, kName); }).wait(), 1);
    fs::permissions(mDirectory.write("private", ""), fs::perms::owner_read);
    EXPECT_EQ(ForkedChild([&] { return sees(kNobody, "private"); }).wait(), 0);
}

}  // namespace
