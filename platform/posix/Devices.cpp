#include "Devices.h"

#include "Environment.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <dirent.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <utility>

namespace platform {
namespace {

constexpr char kDeviceRootVariable[] = "QVL_DEVICE_ROOT";
constexpr char kDefaultDeviceRoot[] = "/dev/qvlreader";
constexpr std::string_view kPortPrefix = "COM";
constexpr char kSystemPortPrefix[] = "/dev/ttyS";  // counts from 0, where COM counts from 1

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

// The n of "COM<n>", 0 for any other name.
std::uint32_t portNumber(std::string_view name) {
    if (!name.starts_with(kPortPrefix)) return 0;
    name.remove_prefix(kPortPrefix.size());
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

bool isDevice(int directory, const char* name) {
    struct stat status;
    return ::fstatat(directory, name, &status, 0) == 0 && (S_ISSOCK(status.st_mode) || S_ISCHR(status.st_mode));
}

}  // namespace

std::string deviceRoot() {
    std::string root = trustedVariable(kDeviceRootVariable);
    return root.empty() ? kDefaultDeviceRoot : root;
}

int listDeviceInterfaces(const char* classGuid, std::vector<DeviceInterface>& out, std::vector<std::string>* skipped) {
    std::vector<std::string> others;
    out.clear();
    if (skipped) skipped->clear();
    const std::string directory = deviceRoot() + '/' + classGuid;
    std::unique_ptr<DIR, CloseDirectory> entries(::opendir(directory.c_str()));
    // Whatever cannot be listed is a class without devices; only a class that is no directory at all is a mistake.
    if (!entries) return errno == ENOTDIR ? ENOTDIR : 0;

    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(entries.get());
        if (!entry) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (isDevice(::dirfd(entries.get()), entry->d_name))
            out.push_back({directory + '/' + entry->d_name, entry->d_name});
        else
            others.emplace_back(name);
    }
    if (const int error = errno; error != 0) {
        out.clear();
        return error;
    }
    std::ranges::sort(out, {}, &DeviceInterface::instanceId);
    std::ranges::sort(others);
    if (skipped) *skipped = std::move(others);
    return 0;
}

std::string serialPortPath(const char* name) {
    if (std::string_view(name).find('/') != std::string_view::npos) return name;
    std::string published = deviceRoot() + '/' + name;
    const std::uint32_t number = portNumber(name);
    if (number == 0) return published;
    // A link that leads nowhere is a reader that has just gone: no other port may be taken for it.
    struct stat status;
    if (::lstat(published.c_str(), &status) == 0) return published;
    return kSystemPortPrefix + std::to_string(number - 1);
}

}  // namespace platform
