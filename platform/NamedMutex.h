#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace platform {

/// A lock known by its name to the whole machine. It nests on the thread that owns it, and orders threads of one
/// process as well as processes.
///
/// What an implementation owes: the lock is free again as soon as its owner's process has died, whatever the nesting
/// depth; a forked child never owns it; the name leads to the same lock in every process, so nothing about it comes
/// from the environment; if the machine-wide half cannot be had, only the order between processes is lost.
class NamedMutex {
  public:
    /// Opens the lock of this name, creating it when it is new. `name` must do as a file name.
    explicit NamedMutex(const char* name);
    ~NamedMutex();
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    /// Told the process id of the holder, 0 if it is not known. It may be the id of this process.
    using LongWait = std::function<void(long holderPid)>;

    /// Waits without limit. Every lock() wants its unlock() on the same thread. `onLongWait` is called once when the
    /// wait has taken 2 s; the wait goes on meanwhile, and lock() returns after the call. It may come from a thread of
    /// its own; it must not use this lock, and what it throws is dropped.
    void lock(const LongWait& onLongWait = {});
    /// Asked between two attempts while somebody else holds the lock; pauses by itself. False ends the wait.
    using MayWait = std::function<bool(long holderPid)>;
    /// @return false if `mayWait` has ended the wait; then there is nothing to unlock.
    bool lockWhile(const MayWait& mayWait);
    void unlock();
    /// @return false if somebody else holds it; never waits.
    bool try_lock();

    /// False when only this process's threads are ordered.
    bool isMachineWide() const;

    struct State;

  private:
    std::shared_ptr<State> mState;
};

/// Puts the machine-wide locks into another directory. For tests only, before the first NamedMutex; null restores the
/// system's own choice.
void setNamedMutexDirectory(const char* directory);

/// Changes the time after which a wait counts as long. For tests only.
void setNamedMutexLongWait(std::chrono::milliseconds time);

}  // namespace platform
