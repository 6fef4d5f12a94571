#include "LogFiles.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

namespace {

constexpr char kNotice[] = "\tThis file is written by the reader library and is not to be edited.\n";
constexpr char kMutexName[] = "QUORVELLOG_MUTEX";
constexpr int kOpenAttempts = 1000;
constexpr int kLastNumber = 9999;
constexpr std::size_t kLargestSequenceFile = 4096;
constexpr std::size_t kLongestErrors = 1023;
constexpr char kErrorSeparator[] = "\n\t\t\t  ";
constexpr char kSeparators[] = "/\\";

/// The decimal number at the front, or nothing if there is none that fits and is not negative.
std::optional<int> parseNumber(const std::string& text) {
    const char* first = text.data();
    const char* const end = first + text.size();
    while (first != end && std::isspace(static_cast<unsigned char>(*first)))
        ++first;
    if (first != end && *first == '+') ++first;
    int number = 0;
    if (std::from_chars(first, end, number).ec != std::errc() || number < 0) return std::nullopt;
    return number;
}

}  // namespace

LogFiles::LogFiles(std::string directory, std::string prefix)
    : mDirectory(std::move(directory)), mPrefix(std::move(prefix)), mReplacing(kMutexName) {}

bool LogFiles::open() {
    if (mFile.isOpen() && !mFile.isDeleted()) return true;
    mFile.close();
    std::unique_lock replacing(mReplacing, std::try_to_lock);
    for (int attempt = 0; !replacing && attempt < kOpenAttempts; ++attempt) {
        std::this_thread::yield();
        (void)replacing.try_lock();
    }
    if (mNumber < 0) {
        const std::optional<int> number = readSequence();
        mNumber = number.value_or(0);
        if (!number) writeSequence();
    } else if (!platform::pathExists(sequencePath().c_str())) {
        writeSequence();  // the directory could not be made the last time
    }
    if (!openCurrent(replacing ? kMaximumSize : kLargestSize)) replaceCurrent();
    return mFile.isOpen();
}

void LogFiles::append(std::string_view lines) { mFile.append(lines); }

void LogFiles::moveWhenFull() {
    const std::uint64_t size = mFile.size();
    if (size < kMaximumSize) return;
    const std::unique_lock replacing(mReplacing, std::try_to_lock);
    if (!replacing && size < kLargestSize) return;
    mFile.close();
    if (const std::optional<int> number = readSequence(); number && *number != mNumber) {
        mNumber = *number;  // another process has moved on already
        if (openCurrent(kMaximumSize)) return;
    }
    mNumber = mNumber >= kLastNumber ? 0 : mNumber + 1;
    writeSequence();
    replaceCurrent();
}

std::string LogFiles::path(const char* extension) const {
    char number[16];
    std::snprintf(number, sizeof number, "%4.4d", mNumber);
    return mDirectory + '/' + mPrefix + number + '.' + extension;
}

std::string LogFiles::sequencePath() const { return mDirectory + '/' + mPrefix + ".dat"; }

std::optional<int> LogFiles::readSequence() const {
    std::string text;
    if (!platform::readTextFile(sequencePath().c_str(), text, kLargestSequenceFile, false)) return std::nullopt;
    return parseNumber(text);
}

void LogFiles::writeSequence() {
    const std::string file = sequencePath();
    if (!platform::pathExists(file.c_str())) makeDirectories();
    if (platform::writeTextFile(file.c_str(), std::to_string(mNumber)) != 0)
        report("Unable to open file ", file, " for write access");
}

void LogFiles::makeDirectories() {
    std::size_t end = 0;
    while (end < mDirectory.size()) {
        end = std::min(mDirectory.find_first_of(kSeparators, end + 1), mDirectory.size());
        const std::string part = mDirectory.substr(0, end);
        if (!platform::pathExists(part.c_str()) && platform::makeDirectory(part.c_str()) != 0)
            report("Unable to create directory ", part);
    }
}

bool LogFiles::openCurrent(std::uint64_t limit) {
    const std::string file = path("txt");
    if (!platform::pathExists(file.c_str())) return false;
    std::uint64_t size = 0;
    if (!platform::regularFileSize(file.c_str(), size)) report("Unable to get file stat from ", file);
    return size < limit && mFile.open(file.c_str()) == 0;
}

/// Begins the file of the current number; one in its place becomes the ".old" file. If that leads to nothing, the file
/// goes back to its place.
void LogFiles::replaceCurrent() {
    const std::string file = path("txt");
    const std::string old = path("old");
    platform::removeFile(old.c_str());
    const bool isKept = platform::renameFile(file.c_str(), old.c_str());
    if (!isKept) platform::removeFile(file.c_str());
    if (mFile.open(file.c_str()) == 0) {
        append(kNotice);
        return;
    }
    report("Unable to open file ", file, " for write access");
    if (isKept) platform::renameFile(old.c_str(), file.c_str());
}

void LogFiles::report(const char* what, const std::string& path, const char* rest, int line) {
    if (!mErrors.empty()) mErrors += kErrorSeparator;
    mErrors += "[Line:" + std::to_string(line) + " @ LogService] (System Error) " + what + path + rest;
    if (mErrors.size() > kLongestErrors) mErrors.resize(kLongestErrors);
}
