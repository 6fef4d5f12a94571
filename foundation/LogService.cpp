#include "LogService.h"

#include "Clock.h"
#include "IniManager.h"
#include "Installation.h"
#include "LogFiles.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

namespace {

constexpr char kSection[] = "LOGSERVICE";
constexpr char kDefaultDirectory[] = "C:/Quorvel/log";
constexpr char kLetters[] = "ESVDMH";
constexpr int kNotConfigured = INT_MIN;
constexpr int kDisabled = -1;

/// Highest level that is written. The one thing that a call looks at when its record is not wanted.
std::atomic<int> gWantedLevel{kNotConfigured};

struct Log {
    std::recursive_mutex lock;
    std::optional<LogFiles> files;  // absent while nothing is to be written
};

Log& theLog() {
    static Log* const log = new Log;  // never destroyed: destructors of other statics may still log
    return *log;
}

/// A record changes nothing for its caller, the last system error included.
class ErrnoKept {
  public:
    ErrnoKept() : mErrno(errno) {}
    ~ErrnoKept() { errno = mErrno; }
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;

  private:
    const int mErrno;
};

const char* prefixOf(LogFileKind kind) {
    switch (kind) {
    case kLogFileApplication:
        return "applog";
    case kLogFileReader:
        return "rdrlog";
    case kLogFileScheduler:
        return "schlog";
    }
    return "qvllog";
}

/// The level in the settings, which may have a sign, or what is written for none.
int wantedLevel(const char* text) {
    constexpr const char* kBlanks = " \t\n\v\f\r";
    if (!text) return kLogFailure;
    text += std::strspn(text, kBlanks);
    if (*text == '-' && iniNumber(text + 1) != 0) return kDisabled;
    if (*text == '-' || *text == '+') ++text;
    return static_cast<int>(std::min<std::uint32_t>(iniNumber(text), INT_MAX));
}

/// Reads the settings, once. @return the highest level that is written
int configure(LogFileKind kind) {
    Log& log = theLog();
    const std::lock_guard guard(log.lock);
    if (const int wanted = gWantedLevel.load(std::memory_order_relaxed); wanted != kNotConfigured) return wanted;

    int wanted = kDisabled;
    const char* setting = iniGetValue(kSection, "LOGPATH");
    std::string directory = platform::toSystemPath(setting && *setting ? setting : kDefaultDirectory);
    // With raised rights the working directory must not choose where files appear.
    const bool isTrusted = directory.starts_with('/') || !platform::hasRaisedRights();
    if (iniNumber(iniGetValue(kSection, "LOGENABLE")) != 0 && isTrusted) {
        log.files.emplace(std::move(directory), prefixOf(kind));
        wanted = wantedLevel(iniGetValue(kSection, "LOGLEVEL"));
    }
    gWantedLevel.store(wanted, std::memory_order_release);
    return wanted;
}

std::string timeField() {
    const platform::LocalTime now = platform::localTime();
    char text[96];
    std::snprintf(text, sizeof text, "[%4.4d %2.2d %2.2d %2.2d:%2.2d:%2.2d:%3.3d] ", now.year, now.month, now.day,
                  now.hour, now.minute, now.second, now.millisecond);
    return text;
}

const char* baseName(const char* file) {
    const char* name = file;
    for (; *file; ++file)
        if (*file == '/' || *file == '\\') name = file + 1;
    return name;
}

std::string recordText(int level, const char* message, int line, const char* file) {
    const char letter = kLetters[std::clamp<int>(level, kLogFailure, kLogDetail)];
    return timeField() + '[' + letter + "] [Line:" + std::to_string(line) + " @ " + baseName(file) + "] " + message +
           '\n';
}

}  // namespace

bool logWanted(int level, LogFileKind kind) try {
    int wanted = gWantedLevel.load(std::memory_order_acquire);
    if (wanted == kNotConfigured) {
        const ErrnoKept keeper;
        wanted = configure(kind);
    }
    return std::max<int>(level, kLogFailure) <= wanted;
} catch (...) {
    return false;
}

void logMessage(int level, const char* message, int line, const char* file, LogFileKind kind) try {
    if (!logWanted(level, kind)) return;
    const ErrnoKept keeper;
    Log& log = theLog();
    const std::lock_guard guard(log.lock);
    LogFiles& files = *log.files;
    files.clearErrors();
    if (!files.open()) return;
    files.append(recordText(level, message ? message : "", line, file ? file : ""));
    if (!files.errors().empty()) files.append(timeField() + "[E] " + files.errors() + '\n');
    files.moveWhenFull();
} catch (...) {
    return;
}

LogText::LogText(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(mText, sizeof mText, format, arguments) < 0) mText[0] = '\0';
    va_end(arguments);
}
