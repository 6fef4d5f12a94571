#include "Installation.h"

#include "Environment.h"
#include "Files.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <sys/auxv.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char kPathVariable[] = "QVL_PATH";
constexpr char kInstalledFile[] = "/etc/qvlreader/2.1/QVL_PATH";
constexpr std::size_t kInstalledFileLimit = 65536;

}  // namespace

std::string trustedVariable(const char* name, bool raisedRights) {
    const char* value = raisedRights ? nullptr : std::getenv(name);
    return value ? value : "";
}

std::string installationPathFrom(const char* installedFile, bool raisedRights) {
    std::string path = trustedVariable(kPathVariable, raisedRights);
    if (!path.empty()) return path;
    std::string text;
    if (!readTextFile(installedFile, text, kInstalledFileLimit, true)) return {};
    return text.substr(0, text.find_first_of("\r\n"));
}

std::string installationPath() { return installationPathFrom(kInstalledFile, hasRaisedRights()); }

std::string programDirectory() {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink("/proc/self/exe", target.data(), target.size());
    if (length <= 0 || static_cast<std::size_t>(length) == target.size()) return {};
    const std::string program(target.data(), static_cast<std::size_t>(length));
    return program.substr(0, program.rfind('/'));
}

bool hasRaisedRights() { return ::getauxval(AT_SECURE) != 0; }

std::string toSystemPath(const std::string& path) {
    const bool hasDrive = path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0])) != 0;
    std::string result = path.substr(hasDrive ? 2 : 0);
    std::ranges::replace(result, '\\', '/');
    return result;
}

}  // namespace platform
