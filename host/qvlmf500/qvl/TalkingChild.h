#pragma once

#include "Error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qvl::detail {

/// How a child comes into the world: with one socket as its three standard streams; in a group of its own, so that
/// Ctrl-C on the terminal leaves its end to us; and with signals as a program expects to find them.
class SpawnSettings {
  public:
    explicit SpawnSettings(int stream) {
        ::posix_spawnattr_init(&mAttributes);
        sigset_t none, pipe;
        sigemptyset(&none);
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        ::posix_spawnattr_setsigmask(&mAttributes, &none);
        ::posix_spawnattr_setsigdefault(&mAttributes, &pipe);
        ::posix_spawnattr_setpgroup(&mAttributes, 0);
        ::posix_spawnattr_setflags(&mAttributes,
                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        ::posix_spawn_file_actions_init(&mActions);
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            ::posix_spawn_file_actions_adddup2(&mActions, stream, standard);
    }
    ~SpawnSettings() {
        ::posix_spawn_file_actions_destroy(&mActions);
        ::posix_spawnattr_destroy(&mAttributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    const posix_spawnattr_t* attributes() const { return &mAttributes; }
    const posix_spawn_file_actions_t* actions() const { return &mActions; }

  private:
    posix_spawnattr_t mAttributes;
    posix_spawn_file_actions_t mActions;
};

/// A program with which this one talks in lines. Its input ends when this process dies.
class TalkingChild {
  public:
    using Deadline = std::chrono::steady_clock::time_point;

    explicit TalkingChild(std::vector<std::string> arguments) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail(arguments[0], errno);
        mStream = ends[0];
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        const SpawnSettings settings(ends[1]);
        const int error =
            ::posix_spawnp(&mChild, argv[0], settings.actions(), settings.attributes(), argv.data(), environ);
        ::close(ends[1]);
        if (error == 0) return;
        ::close(mStream);
        fail(arguments[0], error);
    }
    ~TalkingChild() {
        finish();
        ::close(mStream);
    }
    TalkingChild(const TalkingChild&) = delete;
    TalkingChild& operator=(const TalkingChild&) = delete;

    /// One that has ended does not hear it.
    void say(const std::string& line) const {
        const std::string text = line + '\n';
        std::string_view rest = text;
        while (!rest.empty()) {
            const auto sent = ::send(mStream, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno != EINTR) return;
            if (sent > 0) rest.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    /// The next line that it says; none when it has ended, or says nothing until then.
    std::optional<std::string> readLine(Deadline deadline) {
        for (;;) {
            if (const std::size_t end = mPending.find('\n'); end != std::string::npos) {
                std::string line = mPending.substr(0, end);
                mPending.erase(0, end + 1);
                return line;
            }
            if (mHasEnded) break;
            if (!readSome(deadline)) return std::nullopt;
        }
        if (mPending.empty()) return std::nullopt;
        return std::exchange(mPending, {});
    }

    /// It says nothing any longer.
    bool hasEnded() const { return mHasEnded; }

    /// Waits until it is gone; one that has not ended is stuck and killed. @return its status, as of waitpid.
    int finish() {
        if (mChild <= 0) return mStatus;
        if (!mHasEnded) ::kill(-mChild, SIGKILL);
        while (::waitpid(mChild, &mStatus, 0) < 0 && errno == EINTR) {
        }
        mChild = -1;
        return mStatus;
    }

  private:
    [[noreturn]] static void fail(const std::string& program, int error) {
        throw Error(Reason::noReader,
                    "the program " + program + " cannot be run: " + std::generic_category().message(error));
    }

    /// @return false if the time is over.
    bool readSome(Deadline deadline) {
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{mStream, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::max(left, milliseconds(0)).count()));
        if (ready == 0) return false;
        if (ready < 0) return errno == EINTR;
        std::array<char, 4096> bytes;
        const auto count = ::read(mStream, bytes.data(), bytes.size());
        if (count > 0) mPending.append(bytes.data(), static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EINTR)) mHasEnded = true;
        return true;
    }

    int mStream = -1;
    pid_t mChild = -1;
    int mStatus = 0;
    std::string mPending;
    bool mHasEnded = false;
};

}  // namespace qvl::detail
