#pragma once

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/// A program under test as a child with pipes on its streams, in a process group of its own as a shell would start it.
class ChildProgram {
  public:
    enum Stream { input, output, errors };
    static constexpr int kPatienceMs = 20'000;

    ChildProgram(std::vector<std::string> arguments, const std::map<std::string, std::string>& environment = {}) {
        std::array<std::array<int, 2>, 4> pipes{};
        for (auto& each : pipes)
            EXPECT_EQ(::pipe2(each.data(), O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[input][0], input);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[output][1], output);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[errors][1], errors);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[kAlive][1], kInheritedAs);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);

        std::vector<std::string> variables;
        for (char** variable = environ; *variable; ++variable)
            if (!environment.contains(std::string(*variable).substr(0, std::string(*variable).find('='))))
                variables.emplace_back(*variable);
        for (const auto& [name, value] : environment)
            variables.emplace_back(name).append("=").append(value);
        const auto argv = pointers(arguments), envp = pointers(variables);
        EXPECT_EQ(::posix_spawn(&mChild, argv[0], &actions, &attributes, argv.data(), envp.data()), 0);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);

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

    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> all;
        all.reserve(texts.size() + 1);
        for (std::string& text : texts)
            all.push_back(text.data());
        all.push_back(nullptr);
        return all;
    }
    bool readByte(Stream stream, char& c) {
        pollfd waiting{mEnds[stream], POLLIN, 0};
        return ::poll(&waiting, 1, kPatienceMs) > 0 && ::read(mEnds[stream], &c, 1) == 1;
    }

    pid_t mChild = -1;
    std::array<int, 4> mEnds{-1, -1, -1, -1};
};
