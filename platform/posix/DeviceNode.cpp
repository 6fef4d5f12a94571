#include "DeviceNode.h"

#include "Deadline.h"
#include "Descriptor.h"
#include "Process.h"

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

namespace platform {
namespace {

constexpr std::uint32_t kMsPerSecond = 1000;
constexpr suseconds_t kUsPerMs = 1000;

Descriptor connectTo(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Descriptor place;
    std::string name = path;
    if (name.size() >= sizeof address.sun_path) {
        // Too long for an address: go by way of a descriptor, which has a short name.
        place = openAboveStandard(path, O_PATH);
        if (!place) return {};
        name = "/proc/self/fd/" + std::to_string(place.get());
    }
    std::memcpy(address.sun_path, name.c_str(), name.size() + 1);

    // Without waiting, so that a server whose queue is full refuses at once.
    Descriptor socket = aboveStandard(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return makeBlocking(socket.get()) ? std::move(socket) : Descriptor();
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

bool peerHasClosed(int descriptor) { return (readyNow(descriptor, POLLRDHUP) & (POLLRDHUP | POLLHUP | POLLERR)) != 0; }

// Repeats `transfer` until it has moved something or failed, or the time is over. Between two attempts the descriptor
// becomes ready for `events`.
template <typename Transfer>
IoResult whenReady(int descriptor, short events, const Deadline& deadline, Transfer transfer) {
    for (;;) {
        const ssize_t result = transfer();
        if (result > 0) return IoResult::done;
        if (result < 0 && errno == EINTR) continue;
        if (result == 0 || !wouldBlock()) return IoResult::failed;
        const short ready = waitUntilReady(descriptor, events, deadline);
        if (ready == 0) return IoResult::timedOut;
        if ((ready & events) == 0) return IoResult::failed;
    }
}

}  // namespace

DeviceNode::~DeviceNode() { close(); }

bool DeviceNode::open(const char* path) {
    close();
    struct stat status;
    if (::stat(path, &status) != 0) return false;
    mIsSocket = S_ISSOCK(status.st_mode);
    mReadLimitMs = mWriteLimitMs = kNoLimit;
    mGeneration = processGeneration();
    mDescriptor = (mIsSocket ? connectTo(path) : openAboveStandard(path, O_RDWR | O_NONBLOCK)).release();
    return isOpen();
}

void DeviceNode::close() { const Descriptor closing(std::exchange(mDescriptor, -1)); }

IoResult DeviceNode::read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) {
    count = 0;
    if (mGeneration != processGeneration()) return IoResult::failed;
    return mIsSocket ? readSocket(buffer, count, timeoutMs) : readNode(buffer, count, timeoutMs);
}

// The time-out is a property of the socket, so that a read costs one system call as long as it stays the same.
IoResult DeviceNode::readSocket(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) {
    const Deadline deadline(timeoutMs);
    for (std::uint32_t leftMs = timeoutMs;; leftMs = deadline.remainingMs()) {
        limitSocket(SO_RCVTIMEO, leftMs, mReadLimitMs);
        const ssize_t result = ::recv(mDescriptor, buffer.data(), buffer.size(), leftMs == 0 ? MSG_DONTWAIT : 0);
        if (result == 0) return peerHasClosed(mDescriptor) ? IoResult::failed : IoResult::done;
        if (result > 0) {
            count = static_cast<std::size_t>(result);
            return IoResult::done;
        }
        if (wouldBlock()) return IoResult::timedOut;
        if (errno != EINTR) return IoResult::failed;
    }
}

IoResult DeviceNode::readNode(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) {
    return whenReady(mDescriptor, POLLIN, Deadline(timeoutMs), [&] {
        const ssize_t result = ::read(mDescriptor, buffer.data(), buffer.size());
        if (result > 0) count = static_cast<std::size_t>(result);
        return result;
    });
}

IoResult DeviceNode::write(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs) {
    count = 0;
    if (mGeneration != processGeneration()) return IoResult::failed;
    return mIsSocket ? writeSocket(data, count, timeoutMs) : writeNode(data, count, timeoutMs);
}

IoResult DeviceNode::writeSocket(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs) {
    const Deadline deadline(timeoutMs);
    for (std::uint32_t leftMs = timeoutMs;; leftMs = deadline.remainingMs()) {
        limitSocket(SO_SNDTIMEO, leftMs, mWriteLimitMs);
        const int flags = MSG_NOSIGNAL | (leftMs == 0 ? MSG_DONTWAIT : 0);
        const ssize_t result = ::send(mDescriptor, data.data(), data.size(), flags);
        if (result >= 0) {
            count = static_cast<std::size_t>(result);
            return IoResult::done;
        }
        if (wouldBlock()) return IoResult::timedOut;
        if (errno != EINTR) return IoResult::failed;
    }
}

IoResult DeviceNode::writeNode(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs) {
    const Deadline deadline(timeoutMs);
    IoResult result = IoResult::done;
    while (result == IoResult::done && count < data.size()) {
        result = whenReady(mDescriptor, POLLOUT, deadline, [&] {
            const ssize_t written = ::write(mDescriptor, data.data() + count, data.size() - count);
            if (written > 0) count += static_cast<std::size_t>(written);
            return written;
        });
    }
    return result;
}

// To the system 0 means "no limit"; a time-out of 0 is asked for by MSG_DONTWAIT instead and needs no change here.
void DeviceNode::limitSocket(int option, std::uint32_t timeoutMs, std::uint32_t& current) {
    if (timeoutMs == current || timeoutMs == 0) return;
    timeval limit{};
    if (timeoutMs != kNoLimit) {
        limit.tv_sec = timeoutMs / kMsPerSecond;
        limit.tv_usec = (timeoutMs % kMsPerSecond) * kUsPerMs;
    }
    if (::setsockopt(mDescriptor, SOL_SOCKET, option, &limit, sizeof limit) == 0) current = timeoutMs;
}

}  // namespace platform
