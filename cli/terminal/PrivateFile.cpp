#include "PrivateFile.h"

#include "Descriptor.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

/// @return 0 or the error number.
int writeTo(const std::string& name, int flags, std::span<const std::uint8_t> bytes) {
    const Descriptor file(::open(name.c_str(), O_WRONLY | O_CLOEXEC | flags, S_IRUSR | S_IWUSR));
    if (!file.isOpen()) return errno;
    const bool isFile = (flags & O_CREAT) != 0;
    for (std::size_t done = 0; done < bytes.size();) {
        const auto written = ::write(file.get(), bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return errno;
        done += static_cast<std::size_t>(written);
    }
    return isFile && ::fsync(file.get()) != 0 ? errno : 0;
}

int replaceFile(const std::string& name, std::span<const std::uint8_t> bytes) {
    std::error_code ignored;
    const fs::path target = fs::is_symlink(name, ignored) ? fs::weakly_canonical(name, ignored) : fs::path(name);
    const std::string fresh = target.string() + ".new";
    int error = writeTo(fresh, O_CREAT | O_TRUNC | O_NOFOLLOW, bytes);
    if (error == 0 && std::rename(fresh.c_str(), target.c_str()) != 0) error = errno;
    if (error != 0) fs::remove(fresh, ignored);
    return error;
}

}  // namespace

std::string writePrivateFile(const std::string& name, std::span<const std::uint8_t> bytes) {
    std::error_code ignored;
    const bool isOther = fs::exists(name, ignored) && !fs::is_regular_file(name, ignored);
    const int error = isOther ? writeTo(name, 0, bytes) : replaceFile(name, bytes);
    return error == 0 ? "" : name + " cannot be written: " + std::generic_category().message(error);
}
