#pragma once

#include "Bytes.h"
#include "Error.h"
#include "HostWait.h"
#include "Limit.h"
#include "ReaderImpl.h"
#include "Uid.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What the objects of one reader share. Nothing here is for hosts.
namespace qvl::detail {

/// What an operation of the library hands out, released at the end of the scope.
template <typename T>
class FromLibrary {
  public:
    explicit FromLibrary(ReaderImpl& adaptor) : mAdaptor(adaptor) {}
    ~FromLibrary() { mAdaptor.freeMemory(mPointer); }
    FromLibrary(const FromLibrary&) = delete;
    FromLibrary& operator=(const FromLibrary&) = delete;

    T*& out() { return mPointer; }
    T* get() const { return mPointer; }

  private:
    ReaderImpl& mAdaptor;
    T* mPointer = nullptr;
};

/// A tag as one look into the field has it.
struct Seen {
    Uid uid;
    std::uint32_t type;
};

/// See Reader.
using PortQuestion = std::function<bool(const std::string& port, bool isNamed)>;

/// One reader in use: the adaptor, and what it tells of the reader. Calls are counted, so that closing waits for them.
class Session final : private QVLReaderServiceIntf {
  public:
    explicit Session(PortQuestion mayTryPort)
        : mMayTryPort(std::move(mayTryPort)), mAdaptor(createAdaptorInstance(this)) {
        if (!mAdaptor) throw Error(Reason::failed, "there is not enough memory for an adaptor");
        mAdaptor->loadReaderConfig();
    }
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Ends the waits of all threads, lets their operations finish, and gives the reader back. Any number of times.
    void close() {
        mIsClosing = true;
        const std::unique_lock alone(mUse);
        if (!mAdaptor) return;
        if (mIsOpened) {
            BriefWait wait;
            mAdaptor->stopReader();
        }
        mAdaptor.reset();
    }
    /// There is something to give back.
    void isOpened() { mIsOpened = true; }
    bool isClosing() const { return mIsClosing; }

    /// The library told that the reader was lost (false) or is back (true): from number `from` on, in order.
    std::vector<bool> changesSince(std::size_t from) const {
        const std::scoped_lock lock(mMutex);
        return {mChanges.begin() + static_cast<std::ptrdiff_t>(std::min(from, mChanges.size())), mChanges.end()};
    }
    std::size_t changeCount() const {
        const std::scoped_lock lock(mMutex);
        return mChanges.size();
    }

    // Sessions with cards. A look for tags resets the field and would end them.
    void enterCard(const Uid& uid) {
        const std::scoped_lock lock(mMutex);
        mOpenCards.push_back(uid);
    }
    void leaveCard(const Uid& uid) {
        const std::scoped_lock lock(mMutex);
        std::erase(mOpenCards, uid);
    }
    std::vector<Uid> openCards() const {
        const std::scoped_lock lock(mMutex);
        return mOpenCards;
    }
    /// What the last look has seen: with an open session there is no other.
    std::vector<Seen> lastSeen() const {
        const std::scoped_lock lock(mMutex);
        return mLastSeen;
    }
    /// Serial ports on which a reader was looked for.
    std::vector<std::string> triedPorts() const {
        const std::scoped_lock lock(mMutex);
        return mTriedPorts;
    }
    void hasTriedPort(const std::string& port) {
        const std::scoped_lock lock(mMutex);
        if (std::ranges::find(mTriedPorts, port) == mTriedPorts.end()) mTriedPorts.push_back(port);
    }
    void hasSeen(const std::vector<Seen>& seen) {
        const std::scoped_lock lock(mMutex);
        mLastSeen = seen;
    }

  private:
    friend class Call;

    /// Closing waits for a program that has the reader, but not for ever; the device is closed either way.
    class BriefWait final : private HostWait {
      public:
        BriefWait() : mBefore(hostWait()) { setHostWait(this); }
        ~BriefWait() override { setHostWait(mBefore); }
        BriefWait(const BriefWait&) = delete;
        BriefWait& operator=(const BriefWait&) = delete;

      private:
        bool waitForTag(std::uint32_t) override { return false; }
        bool waitForReader(std::uint32_t ms, long) override {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            return Limit::Clock::now() < mDeadline;
        }

        HostWait* const mBefore;
        const Limit::Clock::time_point mDeadline = Limit::Clock::now() + std::chrono::seconds(5);
    };

    void readerStateChanged(bool ready) override {
        const std::scoped_lock lock(mMutex);
        mChanges.push_back(ready);
    }
    void readerMessage(int, const char*) override {}

    std::atomic<bool> mIsClosing{false};
    bool mIsOpened = false;
    std::shared_mutex mUse;  // shared by each call, alone to close
    mutable std::mutex mMutex;
    std::vector<bool> mChanges;
    std::vector<Uid> mOpenCards;
    std::vector<Seen> mLastSeen;
    std::vector<std::string> mTriedPorts;
    const PortQuestion mMayTryPort;
    std::unique_ptr<ReaderImpl> mAdaptor;
};

using SessionPtr = std::shared_ptr<Session>;

/// The name of a process, for messages; empty if it is not known.
inline std::string processName(long process) {
    std::string name;
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::getline(file, name);
    return name;
}

/// The calls of one operation of this layer to the library: they share its limit. One at a time on each thread.
class Call final : private HostWait {
  public:
    Call(const SessionPtr& session, const Limit& limit)
        : mSession(usable(session)), mLimit(limit), mUse(session->mUse), mChangesBefore(session->changeCount()) {
        if (!session->mAdaptor || session->isClosing()) throw Error(Reason::noReader, "the reader is closed");
        if (limit.stop().stop_requested()) throw Error(Reason::cancelled, kCancelled, "cancelled");
        setHostWait(this);
    }
    ~Call() override { setHostWait(nullptr); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    ReaderImpl& library() { return *mSession->mAdaptor; }
    const SessionPtr& session() const { return mSession; }
    const Limit& limit() const { return mLimit; }

    /// Within its scope the library does not wait for a tag: it looks once.
    class Look {
      public:
        explicit Look(Call& call) : mCall(call), mBefore(std::exchange(call.mIsLook, true)) {}
        ~Look() { mCall.mIsLook = mBefore; }
        Look(const Look&) = delete;
        Look& operator=(const Look&) = delete;

      private:
        Call& mCall;
        bool mBefore;
    };

    /// Lets at most `ms` pass. @return false if the operation has to end.
    bool pause(std::uint32_t ms) { return pause(ms, mLimit.deadline()); }

    /// Fails because of a status, or because the operation was ended. `what` says what was asked for.
    [[noreturn]] void fail(int status, const std::string& what = {}) {
        throwEnd(status);
        const StatusInfo info = statusInfo(status);
        throw Error(info.reason, status, (what.empty() ? "" : what + ": ") + info.meaning);
    }
    /// Throws if the operation was ended by its caller, by the end of the reader object, or while the reader was in
    /// use.
    void throwEnd(int status) {
        if (mThrown) std::rethrow_exception(std::exchange(mThrown, nullptr));
        if (mEnd == End::closed) throw Error(Reason::noReader, status, "the reader was closed");
        if (mEnd == End::cancelled) throw Error(Reason::cancelled, status, "cancelled");
        if (mHolder && !mHadReader) throw Error(Reason::readerBusy, status, busyText(*mHolder));
    }
    /// The reader was had at least once: a wait that is over now is not the fault of another program.
    void hadReader() { mHadReader = true; }
    bool hasHadReader() const { return mHadReader; }
    /// For a last look after an operation whose time is over: the reader is waited for again, briefly.
    void beginEpilogue() {
        if (mEnd == End::timedOut) mEnd = End::none;
        mReaderDeadline = Limit::Clock::now() + std::chrono::seconds(5);
    }
    bool readerWasLost() const {
        const auto changes = mSession->changesSince(mChangesBefore);
        return std::ranges::find(changes, false) != changes.end();
    }

  private:
    enum class End { none, timedOut, cancelled, closed };

    /// Before the session is locked: a thread locks it once.
    static const SessionPtr& usable(const SessionPtr& session) {
        if (!session) throw Error(Reason::noReader, "the reader is closed");
        if (hostWait() != nullptr)
            throw Error(Reason::badArgument, "an operation of this thread is running: it cannot begin another");
        return session;
    }

    bool pause(std::uint32_t ms, Limit::Clock::time_point deadline) {
        for (constexpr std::uint32_t kStepMs = 100;;) {
            const std::uint32_t step = std::min(ms, kStepMs);
            if (!pauseStep(step, deadline)) return false;
            ms -= step;
            if (ms == 0) return true;
        }
    }

    bool waitForTag(std::uint32_t ms) override { return !mIsLook && pause(ms); }
    bool waitForReader(std::uint32_t ms, long holder) override {
        if (pause(ms, mReaderDeadline)) return true;
        if (mEnd == End::timedOut) mHolder = holder;
        return false;
    }

    bool mayTryPort(const char* port, bool isNamed) override {
        try {
            const bool may = mSession->mMayTryPort ? mSession->mMayTryPort(port, isNamed) : isNamed;
            if (may) mSession->hasTriedPort(port);
            return may;
        } catch (...) {
            mThrown = std::current_exception();
            return false;
        }
    }

    bool pauseStep(std::uint32_t ms, Limit::Clock::time_point deadline) {
        if (mEnd != End::none) return false;
        if (mSession->isClosing()) return ends(End::closed);
        if (mLimit.stop().stop_requested() || !asksOn()) return ends(End::cancelled);
        if (Limit::Clock::now() >= deadline) return ends(End::timedOut);
        if (ms == 0) return true;
        auto until = Limit::Clock::now() + std::chrono::milliseconds(ms);
        until = std::min(until, deadline);
        if (!mWaiting) mWaiting.emplace();
        std::unique_lock lock(mWaiting->mutex);
        mWaiting->condition.wait_until(lock, mLimit.stop(), until, [] { return false; });
        return true;
    }
    bool ends(End end) {
        mEnd = end;
        return false;
    }
    bool asksOn() {
        if (!mLimit.question()) return true;
        constexpr std::chrono::milliseconds kBetweenQuestions{50};
        const auto now = Limit::Clock::now();
        if (now < mNextQuestion) return true;
        mNextQuestion = now + kBetweenQuestions;
        try {
            return mLimit.question()();
        } catch (...) {
            mThrown = std::current_exception();
            return false;
        }
    }
    static std::string busyText(long holder) {
        if (holder == 0) return "the reader is in use by another program";
        const std::string name = processName(holder);
        return "the reader is in use by process " + std::to_string(holder) + (name.empty() ? "" : " (" + name + ")");
    }

    struct Waiting {
        std::mutex mutex;
        std::condition_variable_any condition;
    };

    const SessionPtr mSession;
    const Limit mLimit;
    Limit::Clock::time_point mReaderDeadline = mLimit.readerDeadline();
    const std::shared_lock<std::shared_mutex> mUse;
    const std::size_t mChangesBefore;
    bool mIsLook = false;
    End mEnd = End::none;
    std::optional<long> mHolder;
    bool mHadReader = false;
    std::optional<Waiting> mWaiting;
    Limit::Clock::time_point mNextQuestion{};
    std::exception_ptr mThrown;
};

/// All tags in the field; none without a reader. @throws Error (badArgument) while a session with a card is open.
inline std::optional<std::vector<Seen>> listField(Call& call) {
    if (!call.session()->openCards().empty())
        throw Error(Reason::badArgument, "a look for tags would end the session with a card: close that first");
    const Call::Look look(call);
    FromLibrary<TagUID> tags(call.library());
    short count = 0;
    const int status = call.library().getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags.out());
    call.throwEnd(status);
    if (status == kReaderNotReady || status == kReaderFailed) return std::nullopt;
    std::vector<Seen> seen;
    for (const TagUID& tag : std::span(tags.get(), status == kOk && tags.get() ? static_cast<std::size_t>(count) : 0))
        seen.push_back(
            {Uid(ByteView(tag.getUid(), std::min<std::size_t>(tag.getUidLen(), Uid::kMostBytes))), tag.getTagType()});
    call.session()->hasSeen(seen);
    call.hadReader();
    return seen;
}

inline bool contains(const std::vector<Seen>& seen, const Uid& uid) {
    return std::ranges::find(seen, uid, &Seen::uid) != seen.end();
}

}  // namespace qvl::detail
