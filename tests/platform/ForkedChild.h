#pragma once

#include <csignal>
#include <cstdio>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

/// A child process that runs one function, whose result is the exit status.
class ForkedChild {
  public:
    explicit ForkedChild(const std::function<int()>& work) {
        std::fflush(nullptr);  // or the child may print once more what the parent has not printed yet
        mPid = ::fork();
        if (mPid != 0) return;
        ::alarm(kMostSeconds);  // a child that hangs fails
        ::_exit(work());
    }
    ~ForkedChild() {
        if (mPid > 0) kill();
    }
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    pid_t id() const { return mPid; }
    /// Exit status, or minus the signal that ended it.
    int wait() {
        int status = 0;
        ::waitpid(std::exchange(mPid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill() {
        ::kill(mPid, SIGKILL);
        wait();
    }

  private:
    static constexpr unsigned kMostSeconds = 60;
    pid_t mPid = -1;
};

/// Lets one process tell another how far it has come.
class Signpost {
  public:
    Signpost() { mIsOpen = ::pipe(mEnds) == 0; }
    ~Signpost() {
        if (!mIsOpen) return;
        ::close(mEnds[0]);
        ::close(mEnds[1]);
    }
    Signpost(const Signpost&) = delete;
    Signpost& operator=(const Signpost&) = delete;

    bool post() { return ::write(mEnds[1], "x", 1) == 1; }
    bool await() {
        char mark;
        return ::read(mEnds[0], &mark, 1) == 1;
    }

  private:
    int mEnds[2];
    bool mIsOpen;
};
