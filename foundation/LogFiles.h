#pragma once

#include "Files.h"
#include "NamedMutex.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The numbered files of one log: which one is written, and when the next one begins. Knows nothing of levels and
/// records, and locks nothing.
///
///   DIRECTORY/PREFIXnnnn.txt  the current file of number nnnn, 0000 to 9999
///   DIRECTORY/PREFIXnnnn.old  the earlier file of the same number
///   DIRECTORY/PREFIX.dat      the number, in decimal: remembers it from run to run
///
/// A file that reached 1 MiB is followed by the next number; 9999 by 0. Several processes may share a directory: one at
/// a time replaces files, the others write on where they are until it is their turn, and join the file of the number
/// that they then find. Nobody waits for another process, but for a moment when the first file is opened. What fails is
/// gathered as text and tried again by the next call.
class LogFiles {
  public:
    static constexpr std::uint64_t kMaximumSize = 0x100000;
    /// Nobody writes on beyond this size, whoever keeps the others from replacing files.
    static constexpr std::uint64_t kLargestSize = 2 * kMaximumSize;

    LogFiles(std::string directory, std::string prefix);

    /// Sees to it that a file is open. @return false if there is none to write to.
    bool open();
    /// Writes whole lines to the open file.
    void append(std::string_view lines);
    /// Goes on to the next file if the open one is full.
    void moveWhenFull();

    /// What went wrong since clearErrors, one message a line; at most 1023 characters.
    const std::string& errors() const { return mErrors; }
    void clearErrors() { mErrors.clear(); }

  private:
    std::string path(const char* extension) const;
    std::string sequencePath() const;
    std::optional<int> readSequence() const;
    void writeSequence();
    void makeDirectories();
    bool openCurrent(std::uint64_t limit);
    void replaceCurrent();
    void report(const char* what, const std::string& path, const char* rest = "", int line = __builtin_LINE());

    const std::string mDirectory;
    const std::string mPrefix;
    int mNumber = -1;  // -1 until the sequence file was read
    platform::AppendFile mFile;
    platform::NamedMutex mReplacing;
    std::string mErrors;
};
