#pragma once

#include "qvl/Error.h"
#include "qvl/TalkingChild.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace qvl {
namespace detail {

inline std::string joined(const std::vector<std::string>& lines, const char* between = "; ") {
    std::string text;
    for (const std::string& line : lines)
        text += (text.empty() ? "" : between) + line;
    return text;
}

/// A new directory among the temporary files. It goes, with all that is in it, with this object.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        namespace fs = std::filesystem;
        std::error_code problem;
        const fs::path place = fs::temp_directory_path(problem);
        if (!problem) mPath = (fs::absolute(place, problem) / "qvlreader.XXXXXX").string();
        if (!problem && ::mkdtemp(mPath.data()) == nullptr) problem.assign(errno, std::generic_category());
        if (problem)
            throw Error(Reason::failed, "the directory of the virtual reader cannot be made: " + problem.message() +
                                            "; TMPDIR names the place for it");
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return mPath; }

  private:
    std::string mPath;
};

/// Gives an environment variable a value. The former one comes back at the end, unless somebody has set yet another.
class EnvironmentValue {
  public:
    EnvironmentValue(std::string name, std::string value) : mName(std::move(name)), mValue(std::move(value)) {
        if (const char* former = std::getenv(mName.c_str())) mFormer = former;
        ::setenv(mName.c_str(), mValue.c_str(), 1);
    }
    ~EnvironmentValue() {
        const char* now = std::getenv(mName.c_str());
        if (now == nullptr || now != mValue) return;
        if (mFormer)
            ::setenv(mName.c_str(), mFormer->c_str(), 1);
        else
            ::unsetenv(mName.c_str());
    }
    EnvironmentValue(const EnvironmentValue&) = delete;
    EnvironmentValue& operator=(const EnvironmentValue&) = delete;

  private:
    std::string mName, mValue;
    std::optional<std::string> mFormer;
};

}  // namespace detail

/// A reader without hardware, for the tests of a host: the program qvlreadersim, started on a device root of its own
/// and steered from here. It ends with this object, and when this process dies. Each operation takes effect before it
/// returns, and throws Error: badArgument if the reader refuses it, readerLost if the program has ended by itself,
/// failed if it does not answer within 10 s (it is ended then), noReader after end(). Any thread may call any of them.
///
/// The environment of this process changes at the start and at the end, while no other thread may look at it. Several
/// readers end in the reverse order of their start. Files are looked up from the working directory at the start.
class VirtualReader {
  public:
    enum class Model : std::uint8_t { pn531, mfRc500 };
    struct Options {
        Model model = Model::pn531;
        std::vector<std::string> tags{};  ///< In the field at the start: image file, .card file or new:KIND[:UID].
        bool serialPort = false;          ///< On the serial port COM1, not a message socket; for a PN531 only.
        bool saveOnExit = false;          ///< Images that were written to go back to their files.
        std::vector<std::string> more{};  ///< Further options of qvlreadersim, such as "--faults", FILE; not --quiet.
        std::string program{};            ///< Empty: $QVLREADERSIM, else beside this program, else from PATH.
    };
    /// What the reader knows of a tag; `uid` in hexadecimal. `state` is off, idle, ready, active, halted or away.
    struct PlacedTag {
        std::string name, kind, uid, state;
        std::string source;  ///< As it was given: a file or new:KIND[:UID].
    };

    VirtualReader() : VirtualReader(Options{}) {}
    /// Starts it. When this returns the reader is published and QVL_DEVICE_ROOT leads to it, until its end; for a
    /// serial port QVL_PATH leads to settings with that port. The library reads settings once, when a process first
    /// uses it, so a reader on a serial port comes before that. Errors: badArgument for a tag that cannot be made or
    /// wrong options, noReader if the program cannot be run or does not start, failed without a place for temporary
    /// files.
    explicit VirtualReader(const Options& options) {
        if (options.model == Model::mfRc500 && options.serialPort)
            throw Error(Reason::badArgument, "an MF RC500 has no serial port");
        mChild.emplace(commandLine(options));
        awaitReady();
        if (options.serialPort)
            writeSettings();
        else
            hideSerialPort();
        mDeviceRoot.emplace("QVL_DEVICE_ROOT", root());
        if (options.serialPort) mInstallation.emplace("QVL_PATH", root());
    }
    ~VirtualReader() {
        try {
            end();
        } catch (...) {  // without memory its complaints are lost
        }
    }
    VirtualReader(const VirtualReader&) = delete;
    VirtualReader& operator=(const VirtualReader&) = delete;

    /// Its device root, for the environment of other programs: QVL_DEVICE_ROOT.
    const std::string& root() const { return mRoot; }

    /// Remarks on the tags so far, one each.
    std::vector<std::string> remarks() const {
        const std::lock_guard lock(mMutex);
        return mRemarks;
    }

    /// Lays a tag into the field: image file, .card file or new:KIND[:UID]. An empty name leaves the choice to the
    /// reader: tag1, tag2 and so on. @return its name.
    std::string place(const std::string& tag, const std::string& name = {}) {
        constexpr std::string_view kAs = " as ";
        if (!name.empty())
            checkName(name);
        else if (tag.find(kAs) != std::string::npos)
            throw Error(Reason::badArgument, "a tag from a path with the word \"as\" needs a name");
        const std::lock_guard lock(mMutex);
        const std::string answer = exchange("place " + tag + (name.empty() ? name : std::string(kAs) + name));
        const std::size_t end = answer.find(' ');
        if (end != std::string::npos) mRemarks.push_back(answer);
        return answer.substr(0, end);
    }
    /// Takes a tag away for good.
    void remove(const std::string& name) { command("remove " + name); }
    /// Holds a tag away from the field. Its memory stays, its state is lost.
    void takeAway(const std::string& name) { command("away " + name); }
    void bringBack(const std::string& name) { command("back " + name); }

    /// All tags, those that are held away too, in the order in which they came.
    std::vector<PlacedTag> tags() {
        std::vector<PlacedTag> all;
        const std::string list = command("list");
        for (std::size_t begin = 0, end = 0; (end = list.find('\n', begin)) != std::string::npos; begin = end + 1)
            all.push_back(tagOf(std::string_view(list).substr(begin, end - begin)));
        return all;
    }

    /// Writes the image of a tag to a file; an empty one stands for the file that it came from.
    void save(const std::string& name, const std::string& file) {
        checkName(name);
        command("save " + name + " " + file);
    }
    /// The image of a tag: its memory as an image file has it.
    std::vector<std::uint8_t> image(const std::string& name) {
        checkName(name);
        const std::lock_guard lock(mMutex);
        const std::string path = root() + "/.image";
        exchange("save " + name + " " + path);
        std::ifstream file(path, std::ios::binary);
        std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
        if (!file) throw Error(Reason::failed, "the image of \"" + name + "\" cannot be read back");
        return bytes;
    }

    /// Adds a rule to the fault plan: when, how often and what, such as "40 2 no reply".
    void fault(const std::string& rule) { command("fault " + rule); }
    void clearFaults() { command("faults clear"); }

    /// Pulls the reader out. It forgets key and settings.
    void unplug() { command("reader gone"); }
    void plugIn() { command("reader back"); }
    bool fieldIsOn() { return command("field") == "on"; }

    /// The LED byte that the host sent last; 0 for an MF RC500.
    unsigned led() {
        const std::string digits = command("led");
        unsigned byte = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        return byte;
    }

    /// Any line command of qvlreadersim, a line of at most 4096 characters. @return its answer: the lines that come
    /// first, each with its end, then what stands after "ok". The text of the Error is what stands after "error: ".
    std::string command(const std::string& line) {
        const std::lock_guard lock(mMutex);
        return exchange(line);
    }

    /// Ends the reader and gives the environment its former values. @return what went wrong, such as an image that
    /// could not be saved; empty for nothing, and if it has been ended before.
    std::string end() {
        const std::lock_guard lock(mMutex);
        if (!mChild) return {};
        mInstallation.reset();
        mDeviceRoot.reset();
        mChild->say("quit");
        std::vector<std::string> complaints;
        const auto deadline = deadlineFromNow();
        while (const auto line = mChild->readLine(deadline))
            if (*line != kOk) complaints.push_back(withoutProgramName(*line));
        const int status = mChild->finish();
        if (WIFSIGNALED(status))
            complaints.push_back("qvlreadersim ended with signal " + std::to_string(WTERMSIG(status)));
        mChild.reset();
        mDirectory.reset();
        return detail::joined(complaints);
    }

  private:
    static constexpr std::string_view kOk = "ok", kError = "error:";

    static std::chrono::steady_clock::time_point deadlineFromNow() {
        return std::chrono::steady_clock::now() + std::chrono::seconds(10);
    }

    static std::string program(const Options& options) {
        namespace fs = std::filesystem;
        if (!options.program.empty()) return options.program;
        if (const char* named = std::getenv("QVLREADERSIM"); named != nullptr && *named != '\0') return named;
        std::error_code ignored;
        const fs::path beside = fs::read_symlink("/proc/self/exe", ignored).parent_path() / "qvlreadersim";
        return fs::exists(beside, ignored) ? beside.string() : "qvlreadersim";
    }

    std::vector<std::string> commandLine(const Options& options) const {
        std::vector<std::string> words{program(options), "--root", root(), "--reader"};
        words.emplace_back(options.model == Model::pn531 ? "tama" : "mf500");
        words.emplace_back(options.serialPort ? "--com" : "--socket");
        words.emplace_back(options.serialPort ? "1" : "virtual");
        if (options.saveOnExit) words.emplace_back("--save-on-exit");
        words.insert(words.end(), options.more.begin(), options.more.end());
        words.emplace_back("--");
        words.insert(words.end(), options.tags.begin(), options.tags.end());
        return words;
    }

    void awaitReady() {
        const auto deadline = deadlineFromNow();
        while (const auto line = mChild->readLine(deadline)) {
            if (line->starts_with("ready ")) return;
            mRemarks.push_back(withoutProgramName(*line));
        }
        constexpr int kUsage = 2;  // the exit status for tags and options that cannot be
        const int status = mChild->finish();
        const bool isUsage = WIFEXITED(status) && WEXITSTATUS(status) == kUsage;
        throw Error(isUsage ? Reason::badArgument : Reason::noReader,
                    mRemarks.empty() ? "the virtual reader did not start" : detail::joined(mRemarks));
    }

    void writeSettings() const {
        const std::filesystem::path directory = root() + "/data/conf";
        std::error_code ignored;
        std::filesystem::create_directories(directory, ignored);
        std::ofstream file(directory / "QVLReader.ini");
        file << "[READER]\nSERIAL_PORT=1\n[/READER]\n" << std::flush;
        if (!file) throw Error(Reason::failed, "the settings for the serial port cannot be written");
    }

    /// With this reader unplugged the library would try COM1, and without a link of that name a port of the machine.
    void hideSerialPort() const {
        std::error_code ignored;
        std::filesystem::create_symlink("none", root() + "/COM1", ignored);
    }

    static std::string withoutProgramName(const std::string& line) {
        constexpr std::string_view kPrefix = "qvlreadersim: ";
        return line.starts_with(kPrefix) ? line.substr(kPrefix.size()) : line;
    }

    static void checkName(std::string_view name) {
        if (name.empty() || name.find_first_of(" \t") != std::string_view::npos)
            throw Error(Reason::badArgument, "the name of a tag is one word");
    }

    /// Whether a line is the answer that begins so. In the line of a list two blanks follow the name, be it "ok".
    static bool begins(std::string_view line, std::string_view word) {
        if (!line.starts_with(word)) return false;
        line.remove_prefix(word.size());
        return line.empty() || (line[0] == ' ' && !line.starts_with("  "));
    }
    static std::string after(const std::string& line, std::string_view word) {
        return line.substr(std::min(word.size() + 1, line.size()));
    }

    static PlacedTag tagOf(std::string_view line) {
        PlacedTag tag;
        for (std::string* field : {&tag.name, &tag.kind, &tag.uid, &tag.state}) {
            const std::size_t end = std::min(line.find("  "), line.size());
            *field = line.substr(0, end);
            line.remove_prefix(std::min(end + 2, line.size()));
        }
        tag.source = line;
        return tag;
    }

    std::string exchange(const std::string& line) {
        constexpr std::size_t kLongestLine = 4096;
        if (line.find_first_not_of(" \t\r") == std::string::npos || line.find('\n') != std::string::npos)
            throw Error(Reason::badArgument, "a command is one line");
        if (line.size() > kLongestLine) throw Error(Reason::badArgument, "a command has at most 4096 characters");
        if (!mChild) throw Error(Reason::noReader, "the virtual reader has been ended");
        mChild->say(line);
        std::vector<std::string> lines;
        const auto deadline = deadlineFromNow();
        while (auto said = mChild->readLine(deadline)) {
            if (begins(*said, kOk))
                return detail::joined(lines, "\n") + (lines.empty() ? "" : "\n") + after(*said, kOk);
            if (begins(*said, kError)) throw Error(Reason::badArgument, after(*said, kError));
            lines.push_back(*std::move(said));
        }
        if (mChild->hasEnded())
            throw Error(Reason::readerLost, "the virtual reader has ended by itself" +
                                                std::string(lines.empty() ? "" : ": ") + detail::joined(lines));
        mChild->finish();  // a late answer would pass for that to the next command
        throw Error(Reason::failed, "the virtual reader did not answer and has been ended");
    }

    mutable std::mutex mMutex;
    std::optional<detail::TemporaryDirectory> mDirectory{std::in_place};
    const std::string mRoot = mDirectory->path();  ///< Still known after the end.
    std::optional<detail::TalkingChild> mChild;
    std::optional<detail::EnvironmentValue> mDeviceRoot, mInstallation;
    std::vector<std::string> mRemarks;
};

}  // namespace qvl
