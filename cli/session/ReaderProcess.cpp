#include "ReaderProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr const char* kSimulator = "qvlreadersim";
constexpr const char* kReaderName = "virtual";
constexpr std::string_view kReady = "ready ";
constexpr int kPatienceMs = 10'000;
constexpr int kSimulatorUsage = 2;  // its exit status for a tag that it cannot make

/// Beside this program, else wherever PATH has it.
std::string simulatorProgram() {
    std::error_code ignored;
    const fs::path beside = fs::read_symlink("/proc/self/exe", ignored).parent_path() / kSimulator;
    return fs::exists(beside, ignored) ? beside.string() : kSimulator;
}

Problem noVirtualReader(const std::string& meaning, const std::string& advice) {
    return {Outcome::noReader, "no virtual reader", meaning, advice};
}

/// The child's way into the world: a group of its own, so that Ctrl-C on the terminal leaves its end to us, and signals
/// as a program expects to find them.
class SpawnSettings {
  public:
    SpawnSettings(int input, int speech) {
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
        ::posix_spawn_file_actions_adddup2(&mActions, input, STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&mActions, speech, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&mActions, speech, STDERR_FILENO);
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

std::string withoutProgramName(const std::string& line) {
    constexpr std::string_view kPrefix = "qvlreadersim: ";
    return line.starts_with(kPrefix) ? line.substr(kPrefix.size()) : line;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += (text.empty() ? "" : "; ") + line;
    return text;
}

}  // namespace

std::optional<Problem> ReaderProcess::start(const std::vector<std::string>& images, const std::string& model,
                                            bool save) {
    if (!makeRoot())
        return noVirtualReader("its directory cannot be made: " + std::generic_category().message(errno),
                               "Point TMPDIR to a directory that can be written to.");
    std::vector<std::string> arguments{simulatorProgram(), "--root", mRoot, "--socket", kReaderName, "--reader", model};
    if (save) arguments.push_back("--save-on-exit");
    arguments.push_back("--");
    arguments.insert(arguments.end(), images.begin(), images.end());
    if (const int error = spawn(std::move(arguments)); error != 0)
        return noVirtualReader("the program qvlreadersim cannot be run: " + std::generic_category().message(error),
                               "It belongs beside qvltag, or into a directory of PATH.");
    while (const auto line = readLine()) {
        if (line->starts_with(kReady)) {
            ::setenv("QVL_DEVICE_ROOT", mRoot.c_str(), 1);
            return std::nullopt;
        }
        mRemarks.push_back(withoutProgramName(*line));
    }
    const std::string said = mRemarks.empty() ? "it did not start" : joined(std::exchange(mRemarks, {}));
    if (reap() != kSimulatorUsage) return noVirtualReader(said, "");
    return Problem{Outcome::usage, "no such tag", said,
                   "--virtual takes an image file, a .card file or new:KIND, as qvlreadersim(1) has them."};
}

std::string ReaderProcess::end() {
    std::vector<std::string> complaints;
    if (mChild > 0) {
        mInput.reset();
        while (const auto line = readLine())
            complaints.push_back(withoutProgramName(*line));
        reap();
    }
    std::error_code ignored;
    if (!mRoot.empty()) fs::remove_all(std::exchange(mRoot, {}), ignored);
    return joined(complaints);
}

bool ReaderProcess::makeRoot() {
    std::error_code problem;
    std::string name = (fs::temp_directory_path(problem) / "qvltag.XXXXXX").string();
    if (problem) {
        errno = problem.value();
        return false;
    }
    if (!::mkdtemp(name.data())) return false;
    mRoot = name;
    return true;
}

/// @return 0 or the error number.
int ReaderProcess::spawn(std::vector<std::string> arguments) {
    std::array<int, 2> input{-1, -1}, speech{-1, -1};
    if (::pipe2(input.data(), O_CLOEXEC) != 0) return errno;
    const Descriptor theirInput(input[0]);
    mInput.reset(input[1]);
    if (::pipe2(speech.data(), O_CLOEXEC) != 0) return errno;
    mSpeech.reset(speech[0]);
    const Descriptor theirSpeech(speech[1]);

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const SpawnSettings settings(theirInput.get(), theirSpeech.get());
    pid_t child = -1;
    const int error = ::posix_spawnp(&child, argv[0], settings.actions(), settings.attributes(), argv.data(), environ);
    if (error == 0) mChild = child;
    return error;
}

std::optional<std::string> ReaderProcess::readLine() {
    for (;;) {
        if (const std::size_t end = mPending.find('\n'); end != std::string::npos) {
            std::string line = mPending.substr(0, end);
            mPending.erase(0, end + 1);
            return line;
        }
        std::array<char, 1024> bytes;
        pollfd waiting{mSpeech.get(), POLLIN, 0};
        if (::poll(&waiting, 1, kPatienceMs) <= 0) return std::nullopt;
        const auto count = ::read(mSpeech.get(), bytes.data(), bytes.size());
        if (count <= 0) return std::nullopt;
        mPending.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

/// Waits for the end of a child that has closed its streams; one that has not is stuck. @return its exit status, -1 for
/// none.
int ReaderProcess::reap() {
    mInput.reset();
    pollfd waiting{mSpeech.get(), 0, 0};
    if (::poll(&waiting, 1, 0) == 0) ::kill(mChild, SIGKILL);
    int status = 0;
    while (::waitpid(mChild, &status, 0) < 0 && errno == EINTR) {
    }
    mChild = -1;
    mSpeech.reset();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
