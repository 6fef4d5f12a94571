#pragma once

#include "ForkedChild.h"
#include "PseudoTerminal.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <vector>

namespace platform {}
namespace fs = std::filesystem;
using namespace platform;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::uint32_t kLongMs = 20000;  // a wait that must not go to its end

/// A socket of the far side.
class Socket {
  public:
    explicit Socket(int descriptor) : mDescriptor(descriptor) {}
    ~Socket() { ::close(mDescriptor); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool send(std::size_t size) const {
        const std::vector<std::uint8_t> message(size, 0x5A);
        return ::send(mDescriptor, message.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    ssize_t receive() const {
        std::vector<std::uint8_t> buffer(1 << 17);
        return ::recv(mDescriptor, buffer.data(), buffer.size(), 0);
    }
    int get() const { return mDescriptor; }

  private:
    int mDescriptor;
};

/// Binds a socket at `directory`/`name` by its short name and, with a backlog, listens.
inline std::unique_ptr<Socket> serve(const std::string& directory, const std::string& name, int type, int backlog) {
    auto socket = std::make_unique<Socket>(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    const fs::path former = fs::current_path();
    fs::current_path(directory);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const int bound = ::bind(socket->get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    fs::current_path(former);
    if (bound != 0 || (backlog >= 0 && ::listen(socket->get(), backlog) != 0)) return nullptr;
    return socket;
}
