#include "SocketEndpoint.h"

#include "EndpointServer.h"

#include <array>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

class SocketEndpoint::Server : public EndpointServer {
  public:
    Server(std::shared_ptr<VirtualReader> reader, const std::string& root, const std::string& classGuid,
           std::string name)
        : EndpointServer(std::move(reader)), mDirectory(root + "/" + classGuid), mName(std::move(name)),
          mHidden(root + "/." + classGuid + "-" + mName) {}
    ~Server() override { stop(); }

    const std::string& name() const { return mName; }
    std::string path() const { return mDirectory + "/" + mName; }

  private:
    std::string reserve() override;
    void release() override { mReservation.release(); }
    std::string publish() override;
    void unpublish() override;
    void serve() override;

    std::string makeSocket();
    void sendReady(bool& blocked, std::optional<Instant>& wakeAt);
    void readHost();
    void acceptHost();
    void hangUp();

    const std::string mDirectory;
    const std::string mName;
    const std::string mHidden;
    NameReservation mReservation;
    Descriptor mListener;
    Descriptor mHost;
    struct stat mPublishedAs {};
    std::optional<Outgoing> mWaiting;  ///< Message that the socket would not take yet.
};

std::string SocketEndpoint::Server::reserve() {
    if (std::string wrong = makeDirectories(mDirectory); !wrong.empty()) return wrong;
    return mReservation.reserve(path(), mHidden);
}

std::string SocketEndpoint::Server::publish() {
    if (std::string wrong = makeDirectories(mDirectory); !wrong.empty()) return wrong;  // it may be gone by now
    struct stat found {};
    if (::lstat(path().c_str(), &found) == 0 && !S_ISSOCK(found.st_mode))
        return path() + ": something other than a socket has this name; remove it or choose another name";
    if (std::string wrong = makeSocket(); !wrong.empty()) return wrong;
    return mReservation.publish() ? std::string() : systemFailure(path(), "the socket cannot be published");
}

/// A socket that listens already, and so is complete when it gets its name.
std::string SocketEndpoint::Server::makeSocket() {
    const std::string fresh = mReservation.fresh();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    mReservation.shortFresh().copy(address.sun_path, sizeof address.sun_path - 1);
    mListener.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int listener = mListener.get();
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 8) != 0 || ::lstat(fresh.c_str(), &mPublishedAs) != 0)
        return systemFailure(path(), "the socket cannot be made");
    return {};
}

void SocketEndpoint::Server::unpublish() {
    struct stat found {};
    if (::lstat(path().c_str(), &found) == 0 && isSameFile(found, mPublishedAs)) ::unlink(path().c_str());
    std::optional<Instant> wakeAt;
    bool blocked = false;
    sendReady(blocked, wakeAt);
    hangUp();
    mListener.reset();
}

void SocketEndpoint::Server::hangUp() {
    disconnectReader();
    mHost.reset();
    mWaiting.reset();
}

void SocketEndpoint::Server::serve() {
    std::optional<Instant> wakeAt;
    bool blocked = false;
    sendReady(blocked, wakeAt);
    const pollfd host{mHost.get(), static_cast<short>(POLLIN | (blocked ? POLLOUT : 0)), 0};
    const pollfd listener{mHost.isOpen() ? -1 : mListener.get(), POLLIN, 0};
    const auto seen = wait({host, listener}, wakeAt);
    if (seen[0] & (POLLIN | POLLHUP | POLLERR)) readHost();
    if (seen[1]) acceptHost();
}

/// Sends all messages whose time has come; `blocked` if the socket takes no more for now.
void SocketEndpoint::Server::sendReady(bool& blocked, std::optional<Instant>& wakeAt) {
    while (mWaiting || (mWaiting = takeOutgoing(wakeAt))) {
        const auto& bytes = mWaiting->bytes;
        const bool refused = mHost.isOpen() && ::send(mHost.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0;
        blocked = refused && (errno == EAGAIN || errno == ENOBUFS);
        if (blocked) return;
        mWaiting.reset();
        if (!mHost.isOpen() || refused) return hangUp();
    }
}

void SocketEndpoint::Server::readHost() {
    std::array<std::uint8_t, 2048> message;
    const auto length = ::recv(mHost.get(), message.data(), message.size(), 0);
    if (length > 0)
        reader().receive({message.data(), static_cast<std::size_t>(length)});
    else if (length == 0 || (errno != EAGAIN && errno != EINTR))
        hangUp();
}

void SocketEndpoint::Server::acceptHost() {
    mHost.reset(::accept4(mListener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (mHost.isOpen()) connectReader();
}

SocketEndpoint::SocketEndpoint(std::shared_ptr<VirtualReader> reader, const std::string& root,
                               const std::string& classGuid, std::string name)
    : mServer(std::make_unique<Server>(std::move(reader), root, classGuid, std::move(name))) {}

SocketEndpoint::~SocketEndpoint() = default;

std::string SocketEndpoint::start() { return mServer->start(); }

void SocketEndpoint::stop() { mServer->stop(); }

std::string SocketEndpoint::settle() { return mServer->settle(); }

std::string SocketEndpoint::name() const { return mServer->name(); }

std::string SocketEndpoint::path() const { return mServer->path(); }
