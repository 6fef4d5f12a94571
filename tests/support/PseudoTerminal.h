#pragma once

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <termios.h>
#include <unistd.h>
#include <utility>

/// A serial line without hardware: the test holds one end, the other is a terminal with a path. Nothing is echoed or
/// changed on the way, even before somebody has opened the path.
class PseudoTerminal {
  public:
    PseudoTerminal() : mMaster(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        std::array<char, 64> name;
        termios settings{};
        if (mMaster < 0 || ::grantpt(mMaster) != 0 || ::unlockpt(mMaster) != 0 ||
            ::ptsname_r(mMaster, name.data(), name.size()) != 0 || ::tcgetattr(mMaster, &settings) != 0)
            throw std::runtime_error("no pseudo-terminal");
        ::cfmakeraw(&settings);
        ::tcsetattr(mMaster, TCSANOW, &settings);
        mPath = name.data();
    }
    ~PseudoTerminal() { closeMaster(); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    /// What the other side opens.
    const std::string& path() const { return mPath; }
    int master() const { return mMaster; }
    /// Pulls the plug.
    void closeMaster() {
        if (mMaster >= 0) ::close(std::exchange(mMaster, -1));
    }

    /// Sends to whoever has opened the path.
    bool write(std::string_view bytes) const {
        return ::write(mMaster, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }
    /// Receives until `size` bytes are there or nothing comes for `timeoutMs`.
    std::string read(std::size_t size, int timeoutMs = 2000) const {
        std::string received;
        while (received.size() < size) {
            std::array<char, 4096> piece;
            pollfd entry{mMaster, POLLIN, 0};
            if (::poll(&entry, 1, timeoutMs) <= 0) break;
            const ssize_t count = ::read(mMaster, piece.data(), std::min(piece.size(), size - received.size()));
            if (count <= 0) break;
            received.append(piece.data(), static_cast<std::size_t>(count));
        }
        return received;
    }

  private:
    int mMaster;
    std::string mPath;
};
