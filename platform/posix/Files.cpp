#include "Files.h"

#include "Descriptor.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

// Owner and group; the umask may take more away.
constexpr mode_t kFileMode = 0640;
constexpr mode_t kDirectoryMode = 0750;

// A write beyond the size limit of the process raises a signal that ends the process by default. The signal is for the
// writing thread alone, so the thread can hold it back and take it away.
class SizeLimitSignalHeld {
  public:
    SizeLimitSignalHeld() {
        sigemptyset(&mSignal);
        sigaddset(&mSignal, SIGXFSZ);
        ::pthread_sigmask(SIG_BLOCK, &mSignal, &mFormerMask);
        sigset_t pending;
        mWasPending = sigismember(&mFormerMask, SIGXFSZ) == 1 && ::sigpending(&pending) == 0 &&
                      sigismember(&pending, SIGXFSZ) == 1;
    }
    SizeLimitSignalHeld(const SizeLimitSignalHeld&) = delete;
    SizeLimitSignalHeld& operator=(const SizeLimitSignalHeld&) = delete;
    ~SizeLimitSignalHeld() {
        const int error = errno;
        const timespec noTime{};
        if (mRaised && !mWasPending) ::sigtimedwait(&mSignal, nullptr, &noTime);
        ::pthread_sigmask(SIG_SETMASK, &mFormerMask, nullptr);
        errno = error;
    }
    void noteWriteResult(ssize_t result) { mRaised = mRaised || (result < 0 && errno == EFBIG); }

  private:
    sigset_t mSignal;
    sigset_t mFormerMask;
    bool mWasPending = false;
    bool mRaised = false;
};

// One write at the file position. @return 0, or an error number; what fits only in part is ENOSPC.
int writeOnce(int descriptor, std::string_view text) {
    SizeLimitSignalHeld held;
    ssize_t written = 0;
    do {
        written = ::write(descriptor, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    held.noteWriteResult(written);
    if (written < 0) return errno;
    return static_cast<std::size_t>(written) == text.size() ? 0 : ENOSPC;
}

bool isRegular(int descriptor) {
    struct stat status;
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// Opens a regular file for writing, without following a link, symbolic or hard, that somebody planted under its name.
// On failure the result is none and `error` says why.
Descriptor openForWriting(const char* path, int flags, int& error) {
    Descriptor file = openAboveStandard(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | flags, kFileMode);
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        error = errno;
        return {};
    }
    error = !S_ISREG(status.st_mode) ? EINVAL : status.st_nlink > 1 ? EMLINK : 0;
    return error == 0 ? std::move(file) : Descriptor();
}

}  // namespace

bool pathExists(const char* path) {
    struct stat status;
    return ::stat(path, &status) == 0;
}

bool regularFileSize(const char* path, std::uint64_t& size) {
    struct stat status;
    if (::lstat(path, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
}

int makeDirectory(const char* path) {
    if (::mkdir(path, kDirectoryMode) == 0) return 0;
    const int error = errno;
    struct stat status;
    const bool isThere = error == EEXIST && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
    return isThere ? 0 : error;
}

bool renameFile(const char* from, const char* to) { return std::rename(from, to) == 0; }

bool removeFile(const char* path) { return ::unlink(path) == 0; }

bool readTextFile(const char* path, std::string& out, std::size_t limit, bool followLinks) {
    out.clear();
    // Opening alone can set a device or the other end of a FIFO going, so the kind is asked for first; the second look
    // is for a name that changed hands in between.
    struct stat status;
    if ((followLinks ? ::stat(path, &status) : ::lstat(path, &status)) != 0 || !S_ISREG(status.st_mode)) return false;
    const Descriptor file = openAboveStandard(path, O_RDONLY | O_NONBLOCK | (followLinks ? 0 : O_NOFOLLOW));
    if (!file || !isRegular(file.get())) return false;

    char piece[4096];
    for (;;) {
        const ssize_t count = ::read(file.get(), piece, sizeof piece);
        if (count < 0 && errno == EINTR) continue;
        if (count == 0) return true;
        if (count < 0 || static_cast<std::size_t>(count) > limit - out.size()) break;
        out.append(piece, static_cast<std::size_t>(count));
    }
    out.clear();
    return false;
}

int writeTextFile(const char* path, std::string_view text) {
    int error = 0;
    const Descriptor file = openForWriting(path, 0, error);
    if (!file) return error;
    if (const int failure = writeOnce(file.get(), text); failure != 0) return failure;
    return ::ftruncate(file.get(), static_cast<off_t>(text.size())) == 0 ? 0 : errno;
}

AppendFile::~AppendFile() { close(); }

int AppendFile::open(const char* path) {
    close();
    int error = 0;
    mDescriptor = openForWriting(path, O_APPEND, error).release();
    return error;
}

void AppendFile::close() { const Descriptor closing(std::exchange(mDescriptor, -1)); }

bool AppendFile::append(std::string_view text) { return writeOnce(mDescriptor, text) == 0; }

std::uint64_t AppendFile::size() const {
    struct stat status;
    return ::fstat(mDescriptor, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool AppendFile::isDeleted() const {
    struct stat status;
    return ::fstat(mDescriptor, &status) == 0 && status.st_nlink == 0;
}

}  // namespace platform
