#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

bool pathExists(const char* path);
/// True for a regular file, reached without following a link in the last step; `size` then holds its bytes.
bool regularFileSize(const char* path, std::uint64_t& size);
/// Makes one directory for its owner and group. @return 0 or the system's error number; an existing directory is 0.
int makeDirectory(const char* path);
bool renameFile(const char* from, const char* to);
bool removeFile(const char* path);

/// Reads a small regular file whole, at most `limit` bytes; a file that is not regular is not opened for reading.
/// Links are followed only if `followLinks`.
bool readTextFile(const char* path, std::string& out, std::size_t limit, bool followLinks);
/// Replaces the content of a regular file, creating it for its owner and group. Links are not followed.
/// @return 0 or the system's error number.
int writeTextFile(const char* path, std::string_view text);

/// A regular file that only grows. Links and anything but a regular file are not opened; a file that is created belongs
/// to its owner and group. Each append is one write at the end, so that lines of several processes do not mix.
class AppendFile {
  public:
    AppendFile() = default;
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    /// @return 0 or the system's error number.
    int open(const char* path);
    bool isOpen() const { return mDescriptor >= 0; }
    void close();
    /// Writes `text` at the end. A full disk or a size limit is a failure and never a signal.
    bool append(std::string_view text);
    /// Bytes in the file, 0 if the system does not tell.
    std::uint64_t size() const;
    /// True if the open file has lost its last name: what is written now is lost when it is closed.
    bool isDeleted() const;

  private:
    int mDescriptor = -1;
};

}  // namespace platform
