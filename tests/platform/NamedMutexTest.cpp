#include "NamedMutex.h"

#include "ForkedChild.h"
#include "TempDirectory.h"

#include <array>
#include <filesystem>
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
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            for (int round = 0; round < 300; ++round) {
                const std::lock_guard outer(mutex), inner(mutex);
                overlapped = overlapped || ++inside != 1;
                const std::lock_guard innermost(mutex);
                ++total;
                --inside;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(total, 8 * 300);
}

TEST_F(NamedMutexTest, OrdersProcesses) {
    constexpr int kProcesses = 4, kRounds = 500;
    void* shared = ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    volatile int* counter = static_cast<volatile int*>(shared);
    {
        std::array<std::unique_ptr<ForkedChild>, kProcesses> children;
        for (auto& child : children) {
            child = std::make_unique<ForkedChild>([&] {
                NamedMutex mutex(kName);
                for (int round = 0; round < kRounds; ++round) {
                    const std::lock_guard lock(mutex);
                    const int seen = *counter;
                    std::this_thread::yield();
                    *counter = seen + 1;
                }
                return 0;
            });
        }
        for (auto& child : children)
            EXPECT_EQ(child->wait(), 0);
    }
    EXPECT_EQ(*counter, kProcesses * kRounds);
    ::munmap(shared, sizeof(int));
}

class KilledOwnerTest : public NamedMutexTest, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Depth, KilledOwnerTest, testing::Values(1, 2, 3));

TEST_P(KilledOwnerTest, LeavesTheLockToThoseWhoWait) {
    Signpost held, waiting;
    ForkedChild owner([&] {
        NamedMutex mutex(kName);
        for (int i = 0; i < GetParam(); ++i)
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

TEST_F(NamedMutexTest, ForkedChildNeverOwnsIt) {
    NamedMutex mutex(kName);
    Signpost released, tried;
    std::thread rival;
    {
        const std::lock_guard lock(mutex), again(mutex);
        rival = std::thread([&] { EXPECT_FALSE(canTake(mutex)); });
        rival.join();
        ForkedChild child([&] {
            mutex.unlock();  // as the end of a scope of the parent would
            if (mutex.try_lock()) return 1;
            tried.post();
            released.await();
            const std::lock_guard own(mutex);
            return mutex.try_lock() ? 0 : 2;
        });
        ASSERT_TRUE(tried.await());
        mutex.unlock();
        mutex.unlock();
        released.post();
        EXPECT_EQ(child.wait(), 0);
        mutex.lock();
        mutex.lock();
    }
    EXPECT_TRUE(otherThreadCanTake(mutex));
}

TEST_F(NamedMutexTest, ForkWhileAnotherThreadHoldsItLeavesTheChildAUsableLock) {
    NamedMutex mutex(kName);
    Signpost held, tried, release, released;
    std::thread owner([&] {
        const std::lock_guard lock(mutex);
        held.post();
        release.await();
    });
    ASSERT_TRUE(held.await());
    ForkedChild child([&] {
        if (mutex.try_lock()) return 1;
        tried.post();
        released.await();
        const std::lock_guard lock(mutex);
        return 0;
    });
    ASSERT_TRUE(tried.await());
    release.post();
    owner.join();
    released.post();
    EXPECT_EQ(child.wait(), 0);
}

struct Planted {
    const char* what;
    void (*plant)(const std::string& place, const TempDirectory& directory);
    bool machineWide;
};
constexpr char kContent[] = "\0\xFF planted \n";

const Planted kPlanted[] = {
    {"Nothing", [](const std::string&, const TempDirectory&) {}, true},
    {"Content", [](const std::string&, const TempDirectory& in) { in.write(kName, kContent); }, true},
    {"Link",
     [](const std::string& place, const TempDirectory& in) { fs::create_symlink(in.write("victim", kContent), place); },
     false},
    {"DanglingLink",
     [](const std::string& place, const TempDirectory& in) { fs::create_symlink(in / "victim", place); }, false},
    {"Directory", [](const std::string& place, const TempDirectory&) { fs::create_directory(place); }, false},
    {"Fifo", [](const std::string& place, const TempDirectory&) { ::mkfifo(place.c_str(), 0666); }, false},
};

class PlantedLockFileTest : public NamedMutexTest, public testing::WithParamInterface<Planted> {};
INSTANTIATE_TEST_SUITE_P(Kind, PlantedLockFileTest, testing::ValuesIn(kPlanted),
                         [](const auto& planted) { return std::string(planted.param.what); });

TEST_P(PlantedLockFileTest, CostsAtMostTheOrderBetweenProcesses) {
    GetParam().plant(mDirectory / kName, mDirectory);
    const std::string before = fs::is_regular_file(mDirectory / kName) ? mDirectory.read(kName) : "";
    NamedMutex mutex(kName);
    EXPECT_EQ(mutex.isMachineWide(), GetParam().machineWide);
    mutex.lock();
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(otherThreadCanTake(mutex));
    mutex.unlock();
    mutex.unlock();
    EXPECT_TRUE(otherThreadCanTake(mutex));
    if (fs::is_regular_file(mDirectory / kName)) {
        EXPECT_EQ(mDirectory.read(kName), before);
    }
    EXPECT_FALSE(GetParam().what == std::string("DanglingLink") && fs::exists(mDirectory / "victim"));
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
