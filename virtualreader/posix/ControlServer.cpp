#include "ControlServer.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMaxLine = 4096;

void writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const auto written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

bool someoneServes(const sockaddr_un& address) {
    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool isSocket(const std::string& path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode);
}

}  // namespace

ControlServer::ControlServer(Simulator& simulator, bool endsWithInput)
    : mSimulator(simulator), mEndsWithInput(endsWithInput), mInput{STDOUT_FILENO, {}} {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    mSignals.reset(::signalfd(-1, &ends, SFD_CLOEXEC));
}

ControlServer::~ControlServer() {
    for (const auto& [descriptor, peer] : mPeers)
        ::close(descriptor);
    if (!mPath.empty()) ::unlink(mPath.c_str());
}

std::string ControlServer::listen(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return path + ": the name of a control socket has at most 107 characters";
    std::memcpy(address.sun_path, path.c_str(), path.size());
    if (someoneServes(address)) return path + ": another program serves this control socket";
    mListener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto bindSocket = [&] {
        return ::bind(mListener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    };
    bool bound = bindSocket();
    if (!bound && errno == EADDRINUSE && isSocket(path) && ::unlink(path.c_str()) == 0) bound = bindSocket();
    if (!bound || ::listen(mListener.get(), 8) != 0) return systemFailure(path, "the control socket cannot be made");
    mPath = path;
    return {};
}

void ControlServer::run() {
    while (!mSimulator.hasQuit()) {
        std::vector<pollfd> waiting{
            {mSignals.get(), POLLIN, 0}, {mListener.get(), POLLIN, 0}, {mInputOpen ? STDIN_FILENO : -1, POLLIN, 0}};
        for (const auto& [descriptor, peer] : mPeers)
            waiting.push_back({descriptor, POLLIN, 0});
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
        if (waiting[0].revents) return;
        if (waiting[1].revents) acceptPeer();
        if (waiting[2].revents) mInputOpen = readPeer(STDIN_FILENO, mInput);
        if (!mInputOpen && mEndsWithInput) return;
        for (std::size_t i = 3; i < waiting.size() && !mSimulator.hasQuit(); ++i) {
            const int descriptor = waiting[i].fd;
            if (!waiting[i].revents || readPeer(descriptor, mPeers[descriptor])) continue;
            mPeers.erase(descriptor);
            ::close(descriptor);
        }
    }
}

void ControlServer::acceptPeer() {
    const int peer = ::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (peer >= 0) mPeers[peer] = {peer, {}};
}

/// @return false once the other end has closed.
bool ControlServer::readPeer(int descriptor, Peer& peer) {
    std::array<char, kMaxLine> bytes;
    const auto count = ::read(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) return true;
    if (count > 0) peer.pending.append(bytes.data(), static_cast<std::size_t>(count));
    if (count <= 0 && !peer.pending.empty()) peer.pending += '\n';  // The last line may lack its newline.
    takeLines(peer);
    if (peer.pending.size() > kMaxLine) {
        writeAll(peer.out, "error: a line has at most 4096 characters\n");
        return false;
    }
    return count > 0;
}

void ControlServer::takeLines(Peer& peer) {
    for (std::size_t end; !mSimulator.hasQuit() && (end = peer.pending.find('\n')) != std::string::npos;) {
        const std::string line = peer.pending.substr(0, end);
        peer.pending.erase(0, end + 1);
        writeAll(peer.out, mSimulator.run(line));
    }
}
