#pragma once

#include "LinkWatch.h"
#include "NamedMutex.h"
#include "QvlTcl.h"

#include <atomic>
#include <cstdint>
#include <memory>

/// Whether the reader of an adaptor is ready, and who works with it: the one lock of the machine, and the count of
/// operations inside it, nested ones included.
class ReaderState {
  public:
    /// What the adaptor knows of a reader that was lost.
    enum class Loss : std::uint8_t {
        none,
        noted,          ///< An operation has lost it; the host has not heard of it yet.
        told,           ///< The host has, and the reader could not be opened anew.
        beingReopened,  ///< What happens now is neither a new loss nor to be acted on.
    };

    /// `cards` holds the driver.
    explicit ReaderState(const QvlTcl& cards);

    bool isBusy() const { return mPendingCalls != 0; }
    bool isReady() const { return mInitialised && mOpened; }

    std::atomic<bool> mInitialised{false};  ///< initReader has succeeded, and nothing has undone it.
    std::atomic<bool> mOpened{false};       ///< The driver in place is the one that was initialised.
    std::atomic<Loss> mLoss{Loss::none};    ///< In an operation; the next one opens the reader anew.
    std::atomic<unsigned> mOpenings{0};     ///< Counts the starts that have succeeded.

  private:
    friend class ReaderLock;
    friend class WatchedLink;

    const QvlTcl& mCards;
    std::unique_ptr<platform::NamedMutex> mMutex;  // null if it could not be made; all goes on without it
    std::atomic<std::int32_t> mPendingCalls{0};
};

/// One operation, as far as the link of the driver goes: how long it puts up with a silent reader, and whether it has
/// lost one. The outermost scope of a thread counts.
class WatchedLink {
  public:
    /// What a start of the reader meets is its own result: it is no loss for the next operation to act on.
    enum class Purpose { operation, start };
    explicit WatchedLink(ReaderState& reader, Purpose purpose = Purpose::operation);
    ~WatchedLink();
    WatchedLink(const WatchedLink&) = delete;
    WatchedLink& operator=(const WatchedLink&) = delete;

  private:
    ReaderState& mReader;
    Purpose mPurpose;
    std::shared_ptr<Qvl14443bfl> mWatched;  // null if an outer scope watches
    LinkWatch mWatch;
};

/// One operation inside the reader lock: waits for it, without limit unless the host of the thread sets one, and gives
/// it back at the end of the scope. Nests on its thread.
class ReaderLock {
  public:
    /// @throws std::runtime_error if the host has ended the wait.
    explicit ReaderLock(ReaderState& reader) : mHeld(reader), mLink(reader) {}

  private:
    /// The lock itself: held longer than the link is watched.
    struct Held {
        explicit Held(ReaderState& state);
        ~Held();
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        ReaderState& reader;
    };
    Held mHeld;
    WatchedLink mLink;
};
