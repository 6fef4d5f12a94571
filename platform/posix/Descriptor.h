#pragma once

#include <cerrno>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace platform {

/// Owns one open descriptor, or none.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int value) : mValue(value) {}
    Descriptor(Descriptor&& other) noexcept : mValue(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(mValue, other.mValue);
        return *this;
    }
    /// Closes, and leaves errno as it was.
    ~Descriptor() {
        const int error = errno;
        if (mValue >= 0) ::close(mValue);
        errno = error;
    }

    explicit operator bool() const { return mValue >= 0; }
    int get() const { return mValue; }
    int release() { return std::exchange(mValue, -1); }

  private:
    int mValue = -1;
};

/// Takes over a new descriptor, negative for none. In a host without the three standard descriptors it might be one of
/// them and then receive what somebody prints, so it is moved above them. On failure the result is none, errno says
/// why.
inline Descriptor aboveStandard(int descriptor) {
    Descriptor low(descriptor);
    if (descriptor < 0 || descriptor > STDERR_FILENO) return low;
    return Descriptor(::fcntl(low.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// open(2) for descriptors that nobody inherits, that never become a controlling terminal and lie above the standard
/// ones.
inline Descriptor openAboveStandard(const char* path, int flags, mode_t mode = 0) {
    int descriptor = -1;
    do {
        descriptor = ::open(path, flags | O_CLOEXEC | O_NOCTTY, mode);
    } while (descriptor < 0 && errno == EINTR);
    return aboveStandard(descriptor);
}

/// Turns waiting in reads and writes of an open descriptor on.
inline bool makeBlocking(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

}  // namespace platform
