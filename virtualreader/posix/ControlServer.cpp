#include "ControlServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
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
constexpr std::size_t kMaxAnswers = 65536;  // what one peer may have waiting before its commands wait too

// Sends what goes out without waiting. A peer that has gone needs no answers.
void sendSome(int descriptor, std::string& answers) {
    // A pipe that is ready takes this much at once; standard output may be one, and stays as others have set it.
    while (!answers.empty()) {
        pollfd ready{descriptor, POLLOUT, 0};
        if (::poll(&ready, 1, 0) == 0) return;
        const auto written = ::write(descriptor, answers.data(), std::min<std::size_t>(answers.size(), PIPE_BUF));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EAGAIN) return;
        answers.erase(0, written < 0 ? answers.size() : static_cast<std::size_t>(written));
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

/// In its scope new files are for this user alone.
class PrivateFiles {
  public:
    PrivateFiles() : mFormer(::umask(S_IXUSR | S_IRWXG | S_IRWXO)) {}
    ~PrivateFiles() { ::umask(mFormer); }
    PrivateFiles(const PrivateFiles&) = delete;
    PrivateFiles& operator=(const PrivateFiles&) = delete;

  private:
    const mode_t mFormer;
};

}  // namespace

ControlServer::ControlServer(LineCommands& commands, bool endsWithInput)
    : mCommands(commands), mEndsWithInput(endsWithInput), mPeers{{STDIN_FILENO, STDOUT_FILENO}} {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    mSignals.reset(::signalfd(-1, &ends, SFD_CLOEXEC));
}

ControlServer::~ControlServer() {
    for (const Peer& peer : mPeers)
        if (peer.in != STDIN_FILENO) ::close(peer.in);
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
    const PrivateFiles privately;
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
    while (!mCommands.hasQuit()) {
        std::vector<pollfd> waiting{{mSignals.get(), POLLIN, 0}, {mListener.get(), POLLIN, 0}};
        for (const Peer& peer : mPeers) {
            waiting.push_back({peer.isOpen && peer.answers.size() < kMaxAnswers ? peer.in : -1, POLLIN, 0});
            waiting.push_back({peer.answers.empty() ? -1 : peer.out, POLLOUT, 0});
        }
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
        if (waiting[0].revents) return;
        std::size_t next = 2;
        for (Peer& peer : mPeers) {
            const bool isReadable = waiting[next++].revents != 0, isWritable = waiting[next++].revents != 0;
            if (!mCommands.hasQuit()) serve(peer, isReadable, isWritable);
        }
        if (waiting[1].revents) acceptPeer();
        if (mEndsWithInput && mPeers.front().isDone()) return;
        std::erase_if(mPeers, [](const Peer& peer) {
            const bool hasLeft = peer.in != STDIN_FILENO && peer.isDone();
            if (hasLeft) ::close(peer.in);
            return hasLeft;
        });
    }
}

void ControlServer::acceptPeer() {
    const int peer = ::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (peer >= 0) mPeers.push_back({peer, peer});
}

void ControlServer::serve(Peer& peer, bool isReadable, bool isWritable) {
    if (isReadable) readPeer(peer);
    if (isReadable || isWritable) sendSome(peer.out, peer.answers);
}

void ControlServer::readPeer(Peer& peer) {
    std::array<char, kMaxLine> bytes;
    const auto count = ::read(peer.in, bytes.data(), bytes.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count > 0) peer.pending.append(bytes.data(), static_cast<std::size_t>(count));
    peer.isOpen = count > 0;
    if (!peer.isOpen && !peer.pending.empty()) peer.pending += '\n';  // The last line may lack its newline.
    takeLines(peer);
    if (peer.pending.size() <= kMaxLine) return;
    peer.answers += "error: a line has at most 4096 characters\n";
    peer.isOpen = false;
}

void ControlServer::takeLines(Peer& peer) {
    for (std::size_t end; !mCommands.hasQuit() && (end = peer.pending.find('\n')) != std::string::npos;) {
        const std::string line = peer.pending.substr(0, end);
        peer.pending.erase(0, end + 1);
        peer.answers += mCommands.run(line);
    }
}
