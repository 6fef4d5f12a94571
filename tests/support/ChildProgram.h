#pragma once

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/// A program under test as a child with pipes on its streams, in a process group of its own as a shell would start it.
class ChildProgram {
  public:
    enum Stream { input, output, errors };
    static constexpr int kPatienceMs = 20'000;

    ChildProgram(std::string program, std::vector<std::string> arguments,
                 const std::map<std::string, std::string>& environment = {}) {
        std::array<std::array<int, 2>, 4> pipes{};
        for (auto& each : pipes)
            EXPECT_EQ(::pipe2(each.data(), O_CLOEXEC), 0);
        std::vector<char*> words{program.data()};
        for (std::string& argument : arguments)
            words.push_back(argument.data());
        words.push_back(nullptr);
        mChild = ::fork();
        if (mChild == 0) {
            ::setpgid(0, 0);
            ::dup2(pipes[input][0], input);
            ::dup2(pipes[output][1], output);
            ::dup2(pipes[errors][1], errors);
            ::dup2(pipes[kAlive][1], kInheritedAs);
            for (const auto& [name, value] : environment)
                ::setenv(name.c_str(), value.c_str(), 1);
            ::execv(program.c_str(), words.data());
            ::_exit(127);
        }
        mEnds = {pipes[input][1], pipes[output][0], pipes[errors][0], pipes[kAlive][0]};
        for (int theirs : {pipes[input][0], pipes[output][1], pipes[errors][1], pipes[kAlive][1]})
            ::close(theirs);
    }
    ~ChildProgram() {
        if (mChild > 0) ::kill(mChild, SIGKILL), wait();
        for (int each = input; each <= kAlive; ++each)
            close(each);
    }
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    /// The next line of a stream without its newline; "end" at the end, or when nothing comes for long.
    std::string line(Stream stream = output) {
        std::string text;
        for (char c = 0; readByte(stream, c); text += c)
            if (c == '\n') return text;
        return text.empty() ? "end" : text;
    }
    std::string rest(Stream stream = output) {
        std::string text;
        for (char c = 0; readByte(stream, c);)
            text += c;
        return text;
    }
    void say(const std::string& text) {
        EXPECT_EQ(::write(mEnds[input], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    /// Says a line and takes the answer.
    std::string ask(const std::string& text) {
        say(text + "\n");
        return line();
    }
    void close(int stream) {
        if (mEnds[static_cast<std::size_t>(stream)] >= 0) ::close(mEnds[static_cast<std::size_t>(stream)]);
        mEnds[static_cast<std::size_t>(stream)] = -1;
    }

    /// To the whole group, as Ctrl-C on a terminal.
    void signalGroup(int number) { ::kill(-mChild, number); }
    /// @return the exit status, -1 for a death by signal.
    int wait() {
        int status = 0;
        ::waitpid(mChild, &status, 0);
        mChild = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    /// Whether the child and whatever it has started end within `withinMs`.
    bool allGone(int withinMs) {
        pollfd alive{mEnds[kAlive], POLLIN, 0};
        return ::poll(&alive, 1, withinMs) == 1 && (alive.revents & POLLHUP) != 0;
    }

  private:
    // A pipe that nobody writes to: every process down the line holds its end open until it ends.
    static constexpr int kAlive = 3;
    static constexpr int kInheritedAs = 9;

    bool readByte(Stream stream, char& c) {
        pollfd waiting{mEnds[stream], POLLIN, 0};
        return ::poll(&waiting, 1, kPatienceMs) > 0 && ::read(mEnds[stream], &c, 1) == 1;
    }

    pid_t mChild = -1;
    std::array<int, 4> mEnds{-1, -1, -1, -1};
};
