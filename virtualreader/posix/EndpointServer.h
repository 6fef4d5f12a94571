#pragma once

#include "VirtualReader.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/stat.h>

/// A descriptor that closes itself.
class Descriptor {
  public:
    explicit Descriptor(int number = -1) : mNumber(number) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return mNumber; }
    bool isOpen() const { return mNumber >= 0; }
    void reset(int number = -1);

  private:
    int mNumber;
};

/// A published name that one simulator has for itself, and the place where what takes that name is made: a hidden
/// directory, locked while the simulator lives. One that a dead simulator left behind is taken over.
class NameReservation {
  public:
    NameReservation() = default;
    ~NameReservation() { release(); }
    NameReservation(const NameReservation&) = delete;
    NameReservation& operator=(const NameReservation&) = delete;

    /// Reserves `published` by way of the directory `hidden`, on the same file system, where nobody looks for readers.
    /// @return empty or what went wrong.
    std::string reserve(const std::string& published, const std::string& hidden);
    void release();

    /// Where to make it; what is left there from before is removed.
    std::string fresh() const;
    /// The same by a short name, for an address that has no room for long ones.
    std::string shortFresh() const;
    /// Puts what was made under its published name, in one step. @return false with errno.
    bool publish() const;

  private:
    std::string place() const { return mHidden + "/new"; }

    std::string mPublished, mHidden;
    Descriptor mDirectory;
};

/// What the two endpoints share: a thread that moves bytes between a reader and whatever a host opens, the queue of
/// what the reader sent, and the reader's going and coming.
class EndpointServer : private ReaderSink, private ReaderWatcher {
  public:
    explicit EndpointServer(std::shared_ptr<VirtualReader> reader);
    /// An implementation calls `stop` in its own destructor.
    ~EndpointServer() override;

    /// @return empty or what went wrong.
    std::string start();
    void stop();
    /// Waits until the name is published or gone as the reader is there or not. Not from a reader's own call.
    /// @return empty or why it could not be published.
    std::string settle();

  protected:
    using Clock = std::chrono::steady_clock;
    using Instant = Clock::time_point;

    struct Outgoing {
        std::vector<std::uint8_t> bytes;
        Instant readyAt;
        bool delayed = false;
    };

    /// Reserves the name for the time from `start` to `stop`. @return empty or what went wrong.
    virtual std::string reserve() = 0;
    virtual void release() = 0;
    /// Opens and publishes; called by `start` and when the reader comes back. @return empty or what went wrong.
    virtual std::string publish() = 0;
    /// Sends what is ready, hangs up on the host and the reader, takes the name away. Called by the thread, or after
    /// it.
    virtual void unpublish() = 0;
    /// One round of service: does what is due, then waits for more.
    virtual void serve() = 0;

    VirtualReader& reader() { return *mReader; }
    /// A host comes, a host goes; what was meant for an earlier one is dropped.
    void connectReader();
    void disconnectReader();

    /// The next message for the host, if there is one and its time has come; else `wakeAt` tells its time.
    std::optional<Outgoing> takeOutgoing(std::optional<Instant>& wakeAt);
    /// Waits for one of the descriptors (at most three; negative ones are skipped), for news from the reader, or until
    /// `deadline`. @return the events seen.
    std::vector<short> wait(std::initializer_list<pollfd> descriptors, std::optional<Instant> deadline);

  private:
    void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) override;
    void onBabble() override;
    void onQuiet() override;
    void onVanished() override;
    void onReturned() override;

    void run();
    void forget();
    void wake();
    void clearWake();
    /// Follows the reader's going and coming. @return true while there is something to serve.
    bool follow();

    std::shared_ptr<VirtualReader> mReader;
    Descriptor mWake;
    std::thread mThread;
    bool mPublished = false;  ///< Of the thread alone, once it runs.

    std::mutex mMutex;  ///< Guards all below. Taken last, under the field's lock or without.
    std::deque<Outgoing> mQueue;
    std::condition_variable mSettled;
    std::string mProblem;                    ///< Why the name is not published although it should be.
    std::uint64_t mNews = 0, mFollowed = 0;  ///< Goings and comings of the reader, and how many are done.
    bool mStopping = false;
    bool mVanished = false;
    bool mPresent = true;
    bool mBabbling = false;
    std::uint64_t mBabblePosition = 0;
    Instant mBabbleSince;
};

/// Makes a directory and those above it. @return empty or what went wrong.
std::string makeDirectories(const std::string& path);
bool isSameFile(const struct stat& one, const struct stat& other);
/// "path: what: reason of the system".
std::string systemFailure(const std::string& path, const char* what);
