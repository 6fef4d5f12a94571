#include "NamedMutex.h"

#include "Descriptor.h"
#include "LockDirectory.h"
#include "ManualResetEvent.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <utility>

namespace platform {
namespace {

constexpr mode_t kForEverybody = 0666, kForGroup = 0660;
constexpr int kOpenAttempts = 10;
constexpr std::chrono::milliseconds kBetweenAttempts{1};

std::atomic<std::chrono::milliseconds> longWait{std::chrono::seconds(2)};

// Root's own and closed to everybody outside of its group.
bool isOfGroup(const struct stat& status) { return status.st_uid == 0 && (status.st_mode & S_IWOTH) == 0; }

// The lock file of such a directory belongs to the group of the directory, whoever makes it.
void openToUsers(int file, const std::string& directory) {
    struct stat status;
    const bool ofGroup = ::stat(directory.c_str(), &status) == 0 && isOfGroup(status);
    // Root may give it to any group, and anybody else who can make it is in this one.
    [[maybe_unused]] const int refused = ofGroup ? ::fchown(file, static_cast<uid_t>(-1), status.st_gid) : 0;
    ::fchmod(file, ofGroup ? kForGroup : kForEverybody);  // the umask had its say before
}

// Opened without creating first: a system may refuse to "create" another user's file in a directory open to all.
Descriptor openOrCreate(const std::string& path) {
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK;
    Descriptor file = openAboveStandard(path.c_str(), kFlags);
    if (file || errno != ENOENT) return file;
    file = openAboveStandard(path.c_str(), kFlags | O_CREAT | O_EXCL, kForGroup);
    if (file) openToUsers(file.get(), path.substr(0, path.rfind('/')));
    return file;
}

// The content of the file never matters, only that everybody locks the same one. None if that cannot be had.
Descriptor openLockFile(const std::string& path) {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        Descriptor file = openOrCreate(path);
        struct stat status;
        if (file) return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? std::move(file) : Descriptor();
        // Another process may just have created it and not yet opened it to all.
        if (errno != EEXIST && errno != EACCES) break;
        std::this_thread::sleep_for(kBetweenAttempts);
    }
    return {};
}

// Two bytes of the file are locked. Whoever waits holds the place of the next, and gives it back once it has the lock:
// a process that gives the lock back and wants it at once finds the place taken, so that nobody starves.
enum class Byte : off_t { lock = 0, next = 1 };

struct flock recordOf(Byte byte, short type) {
    struct flock record {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    record.l_start = static_cast<off_t>(byte);
    record.l_len = 1;
    return record;
}

// A record lock belongs to the process: it goes with its death and is not inherited.
int setRecordLock(int file, Byte byte, int command, short type) {
    struct flock record = recordOf(byte, type);
    int result = 0;
    do {
        result = ::fcntl(file, command, &record);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

// The other process that holds the lock of `file`, 0 if there is none or it is not known.
long recordHolder(int file) {
    struct flock record = recordOf(Byte::lock, F_WRLCK);
    return ::fcntl(file, F_GETLK, &record) == 0 && record.l_type != F_UNLCK ? record.l_pid : 0;
}

// Any refusal but "another process has it" only costs the order between processes.
bool isTaken(int error) { return error == EAGAIN || error == EACCES; }

// The report of one wait: due at its time, made at most once.
class LongWaitReport {
  public:
    LongWaitReport(const NamedMutex::LongWait& report, const Descriptor& file) : mReport(report), mFile(file) {}

    bool isWanted() const { return mReport && !mIsMade; }
    std::chrono::steady_clock::time_point due() const { return mDue; }
    // Without a lock of this module held. `inProcess`: a thread of this process is ahead.
    void make(bool inProcess) noexcept {
        mIsMade = true;
        const long other = mFile ? recordHolder(mFile.get()) : 0;
        try {
            mReport(other == 0 && inProcess ? ::getpid() : other);
        } catch (...) {
        }
    }

  private:
    const NamedMutex::LongWait& mReport;
    const Descriptor& mFile;
    const std::chrono::steady_clock::time_point mDue = std::chrono::steady_clock::now() + longWait.load();
    bool mIsMade = false;
};

// Makes the report from a thread of its own if it becomes due within this scope. Without such a thread the wait is the
// same, only nobody is told.
class ReportWhileBlocked {
  public:
    explicit ReportWhileBlocked(LongWaitReport& report) {
        if (!report.isWanted()) return;
        try {
            mThread = std::thread([this, &report] { watch(report); });
        } catch (const std::system_error&) {
        }
    }
    ~ReportWhileBlocked() {
        mEnd.set();
        if (mThread.joinable()) mThread.join();
    }
    ReportWhileBlocked(const ReportWhileBlocked&) = delete;
    ReportWhileBlocked& operator=(const ReportWhileBlocked&) = delete;

  private:
    void watch(LongWaitReport& report) {
        const auto left = report.due() - std::chrono::steady_clock::now();
        if (!mEnd.waitFor(std::chrono::ceil<std::chrono::milliseconds>(left))) report.make(false);
    }

    ManualResetEvent mEnd;
    std::thread mThread;
};

}  // namespace

std::string systemLockDirectory(const std::string& run) {
    std::string ofGroup = run + "/qvlreader", shared = run + "/lock";
    struct stat status;
    if (::stat(ofGroup.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && isOfGroup(status)) return ofGroup;
    if (::stat(shared.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && (status.st_mode & S_IWOTH) != 0)
        return shared;
    return "/tmp";
}

/// The lock of one name in this process. `mGuard` is held for a few instructions only, so that a fork can wait for it.
struct NamedMutex::State {
    explicit State(const std::string& path) : mFile(openLockFile(path)) {}

    enum class Entry { first, nested, refused };
    Entry enter(LongWaitReport& report);
    Entry tryEnter();
    void takeRecord(LongWaitReport& report);
    bool takeRecordWhile(const std::function<bool()>& mayWait);
    bool isMachineWide() const { return static_cast<bool>(mFile); }
    void leave();
    void startUnownedInChild();
    const Descriptor& file() const { return mFile; }

    std::mutex mGuard;

  private:
    Entry own();
    void giveUpOwnership();

    std::condition_variable mReleased;
    std::thread::id mOwner;
    unsigned mDepth = 0;
    bool mHasRecord = false;  // belongs to the owner
    const Descriptor mFile;   // never closed: closing any descriptor of the file would drop the record lock
};

// Under the guard, with the lock free or this thread's own.
NamedMutex::State::Entry NamedMutex::State::own() {
    mOwner = std::this_thread::get_id();
    return ++mDepth == 1 ? Entry::first : Entry::nested;
}

NamedMutex::State::Entry NamedMutex::State::tryEnter() {
    std::lock_guard lock(mGuard);
    return mDepth != 0 && mOwner != std::this_thread::get_id() ? Entry::refused : own();
}

NamedMutex::State::Entry NamedMutex::State::enter(LongWaitReport& report) {
    const auto isOpen = [this] { return mDepth == 0 || mOwner == std::this_thread::get_id(); };
    std::unique_lock lock(mGuard);
    if (report.isWanted() && !mReleased.wait_until(lock, report.due(), isOpen)) {
        lock.unlock();
        report.make(true);
        lock.lock();
    }
    mReleased.wait(lock, isOpen);
    return own();
}

// The machine-wide half, for the owner.
void NamedMutex::State::takeRecord(LongWaitReport& report) {
    if (!mFile) return;
    const auto take = [&](Byte byte) {
        int error = setRecordLock(mFile.get(), byte, F_SETLK, F_WRLCK);
        if (!isTaken(error)) return error;
        const ReportWhileBlocked whileBlocked(report);
        error = setRecordLock(mFile.get(), byte, F_SETLKW, F_WRLCK);
        while (error == EDEADLK) {  // the system judges by processes, and may see a circle where there is none
            std::this_thread::sleep_for(kBetweenAttempts);
            error = setRecordLock(mFile.get(), byte, F_SETLKW, F_WRLCK);
        }
        return error;
    };
    take(Byte::next);
    mHasRecord = take(Byte::lock) == 0;
    setRecordLock(mFile.get(), Byte::next, F_SETLK, F_UNLCK);
}

// @return false if `mayWait` has ended the wait; then the ownership is given up again.
bool NamedMutex::State::takeRecordWhile(const std::function<bool()>& mayWait) {
    if (!mFile) return true;
    const auto take = [&](Byte byte) {
        for (;;) {
            const int error = setRecordLock(mFile.get(), byte, F_SETLK, F_WRLCK);
            if (!isTaken(error) || !mayWait()) return error;
        }
    };
    int error = take(Byte::next);
    if (!isTaken(error)) error = take(Byte::lock);
    setRecordLock(mFile.get(), Byte::next, F_SETLK, F_UNLCK);
    mHasRecord = error == 0;
    if (!isTaken(error)) return true;
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
    if (std::exchange(mHasRecord, false)) setRecordLock(mFile.get(), Byte::lock, F_SETLK, F_UNLCK);
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

void NamedMutex::lock(const LongWait& onLongWait) {
    LongWaitReport report(onLongWait, mState->file());
    if (mState->enter(report) == State::Entry::first) mState->takeRecord(report);
}

bool NamedMutex::lockWhile(const MayWait& mayWait) {
    const auto holder = [&] { return mState->file() ? recordHolder(mState->file().get()) : 0; };
    const auto waitForOther = [&] { return mayWait(holder()); };
    for (;;) {
        const State::Entry entry = mState->tryEnter();
        if (entry == State::Entry::nested) return true;
        if (entry == State::Entry::first) return mState->takeRecordWhile(waitForOther);
        if (const long other = holder(); !mayWait(other != 0 ? other : ::getpid())) return false;
    }
}

bool NamedMutex::try_lock() {
    return lockWhile([](long) { return false; });
}

void NamedMutex::unlock() { mState->leave(); }

bool NamedMutex::isMachineWide() const { return mState->isMachineWide(); }

void setNamedMutexDirectory(const char* directory) {
    Registry& all = registry();
    std::lock_guard lock(all.mGuard);
    all.mDirectory = directory ? directory : "";
}

void setNamedMutexLongWait(std::chrono::milliseconds time) { longWait = time; }

}  // namespace platform
