#pragma once

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

    /// Waits without limit. Every lock() wants its unlock() on the same thread.
    void lock();
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

}  // namespace platform
