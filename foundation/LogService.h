#pragma once

#include <cstdarg>
#include <cstddef>

/// Diagnostics of the library, written into numbered text files of a directory. Process-wide; the first call sets
/// everything up from section LOGSERVICE of the settings. Without LOGENABLE nothing is ever written. Any thread may
/// log; a caller is never disturbed, whatever happens to the files, and finds errno as it was. Destructors of static
/// objects may log too.

/// Levels; a record shows the letter of "ESVDMH" at this place.
enum LogLevel : int {
    kLogFailure = 0,
    kLogState = 1,
    kLogNotice = 2,
    kLogProgress = 3,
    kLogScan = 4,
    kLogDetail = 5,
};

/// Chooses the prefix of the file names, once, at the first call of a process.
enum LogFileKind : int {
    kLogFileApplication = 1,  ///< "applog"
    kLogFileReader = 2,       ///< "rdrlog"
    kLogFileScheduler = 3,    ///< "schlog"
};

/// True if a record of this level would be written. Reads the settings if nobody has done so yet.
bool logWanted(int level, LogFileKind kind = kLogFileReader);

/// Writes one record: local time, letter of the level, line, base name of `file`, message.
void logMessage(int level, const char* message, int line, const char* file, LogFileKind kind);

/// The text of one log record, at most 4095 characters; what goes beyond is cut. printf formats.
class LogText {
  public:
    explicit LogText(const char* format, ...) __attribute__((format(printf, 2, 3)));
    const char* text() const { return mText; }

  private:
    char mText[4096];
};

/// The log statement: level, printf format, arguments. Nothing is formatted for a record that will not be written.
#define QVL_LOG(level, ...)                                                                                            \
    do {                                                                                                               \
        if (logWanted(level)) logMessage(level, LogText(__VA_ARGS__).text(), __LINE__, __FILE__, kLogFileReader);      \
    } while (false)
