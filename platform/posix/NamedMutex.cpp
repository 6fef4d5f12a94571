#include "NamedMutex.h"

#include "Descriptor.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace platform {
namespace {

constexpr mode_t kForEverybody = 0666;
constexpr int kOpenAttempts = 10;
constexpr std::chrono::milliseconds kBetweenAttempts{1};

// The first that everybody may write to: the choice is the same in every process, whatever its rights.
std::string systemLockDirectory() {
    constexpr char kPreferred[] = "/run/lock";
    struct stat status;
    const bool isShared =
        ::stat(kPreferred, &status) == 0 && S_ISDIR(status.st_mode) && (status.st_mode & S_IWOTH) != 0;
    return isShared ? kPreferred : "/tmp";
}

// Opened without creating first: a system may refuse to "create" another user's file in a directory open to all.
Descriptor openOrCreate(const char* path) {
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK;
    Descriptor file = openAboveStandard(path, kFlags);
    if (file || errno != ENOENT) return file;
    file = openAboveStandard(path, kFlags | O_CREAT | O_EXCL, kForEverybody);
    if (file) ::fchmod(file.get(), kForEverybody);  // the umask had its say before
    return file;
}

// The content of the file never matters, only that everybody locks the same one. None if that cannot be had.
Descriptor openLockFile(const std::string& path) {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        Descriptor file = openOrCreate(path.c_str());
        struct stat status;
        if (file) return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? std::move(file) : Descriptor();
        // Another process may just have created it and not yet opened it to all.
        if (errno != EEXIST && errno != EACCES) break;
        std::this_thread::sleep_for(kBetweenAttempts);
    }
    return {};
}

// A record lock belongs to the process: it goes with its death and is not inherited.
int setRecordLock(int file, int command, short type) {
    struct flock record {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    int result = 0;
    do {
        result = ::fcntl(file, command, &record);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

}  // namespace

/// The lock of one name in this process. `mGuard` is held for a few instructions only, so that a fork can wait for it.
struct NamedMutex::State {
    explicit State(const std::string& path) : mFile(openLockFile(path)) {}

    enum class Entry { first, nested, refused };
    Entry enter(bool mayWait);
    bool takeRecord(bool mayWait);
    void leave();
    void startUnownedInChild();
    bool isMachineWide() const { return static_cast<bool>(mFile); }

    std::mutex mGuard;

  private:
    void giveUpOwnership();

    std::condition_variable mReleased;
    std::thread::id mOwner;
    unsigned mDepth = 0;
    bool mHasRecord = false;  // belongs to the owner
    const Descriptor mFile;   // never closed: closing any descriptor of the file would drop the record lock
};

NamedMutex::State::Entry NamedMutex::State::enter(bool mayWait) {
    const auto self = std::this_thread::get_id();
    std::unique_lock lock(mGuard);
    if (mOwner == self) {
        ++mDepth;
        return Entry::nested;
    }
    if (mDepth != 0 && !mayWait) return Entry::refused;
    mReleased.wait(lock, [this] { return mDepth == 0; });
    mOwner = self;
    mDepth = 1;
    return Entry::first;
}

// The machine-wide half. @return false if another process has it; then the ownership is given up again. Any other
// refusal only costs the order between processes.
bool NamedMutex::State::takeRecord(bool mayWait) {
    if (!mFile) return true;
    int error = setRecordLock(mFile.get(), mayWait ? F_SETLKW : F_SETLK, F_WRLCK);
    while (mayWait && error == EDEADLK) {  // the system judges by processes, and may see a circle where there is none
        std::this_thread::sleep_for(kBetweenAttempts);
        error = setRecordLock(mFile.get(), F_SETLKW, F_WRLCK);
    }
    mHasRecord = error == 0;
    if (mayWait || (error != EAGAIN && error != EACCES)) return true;
    giveUpOwnership();
    return false;
}

// Does nothing for a thread that is not the owner, such as that of a forked child which leaves a scope of its parent.
void NamedMutex::State::leave() {
    {
        std::lock_guard lock(mGuard);
        if (mOwner != std::this_thread::get_id()) return;
        if (mDepth > 1) {
            --mDepth;
            return;
        }
    }
    if (std::exchange(mHasRecord, false)) setRecordLock(mFile.get(), F_SETLK, F_UNLCK);
    giveUpOwnership();
}

void NamedMutex::State::giveUpOwnership() {
    std::lock_guard lock(mGuard);
    mOwner = {};
    mDepth = 0;
    mReleased.notify_one();
}

// The waiters that the condition variable knows of did not come along; it starts anew, without a look at the old one.
void NamedMutex::State::startUnownedInChild() {
    std::construct_at(&mReleased);
    mOwner = {};
    mDepth = 0;
    mHasRecord = false;
}

namespace {

// All locks of the process, for its whole life.
struct Registry {
    std::mutex mGuard;
    std::map<std::string, std::shared_ptr<NamedMutex::State>> mStates;  // by path
    std::string mDirectory;                                             // empty: the system's own
};

Registry& registry();

// Around a fork all guards are held, so that the child finds every lock in a state between two steps.
void beforeFork() {
    registry().mGuard.lock();
    for (auto& [path, state] : registry().mStates)
        state->mGuard.lock();
}

void releaseGuards() {
    for (auto& [path, state] : registry().mStates)
        state->mGuard.unlock();
    registry().mGuard.unlock();
}

void afterForkInChild() {
    for (auto& [path, state] : registry().mStates)
        state->startUnownedInChild();
    releaseGuards();
}

Registry& registry() {
    static Registry& instance = *[] {
        ::pthread_atfork(beforeFork, releaseGuards, afterForkInChild);
        return new Registry;
    }();
    return instance;
}

}  // namespace

NamedMutex::NamedMutex(const char* name) {
    Registry& all = registry();
    std::lock_guard lock(all.mGuard);
    const std::string path = (all.mDirectory.empty() ? systemLockDirectory() : all.mDirectory) + '/' + name;
    std::shared_ptr<State>& state = all.mStates[path];
    if (!state) state = std::make_shared<State>(path);
    mState = state;
}

NamedMutex::~NamedMutex() = default;

void NamedMutex::lock() {
    if (mState->enter(true) == State::Entry::first) mState->takeRecord(true);
}

bool NamedMutex::try_lock() {
    switch (mState->enter(false)) {
    case State::Entry::first:
        return mState->takeRecord(false);
    case State::Entry::nested:
        return true;
    case State::Entry::refused:
        break;
    }
    return false;
}

void NamedMutex::unlock() { mState->leave(); }

bool NamedMutex::isMachineWide() const { return mState->isMachineWide(); }

void setNamedMutexDirectory(const char* directory) {
    Registry& all = registry();
    std::lock_guard lock(all.mGuard);
    all.mDirectory = directory ? directory : "";
}

}  // namespace platform
