#include "KeyText.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::size_t kLongestKeyFile = 4096;
constexpr std::string_view kFromEnvironment = "env:";

std::string_view firstLine(std::string_view text) {
    text = text.substr(0, text.find('\n'));
    while (!text.empty() && std::string_view(" \t\r").find(text.back()) != std::string_view::npos)
        text.remove_suffix(1);
    return text;
}

}  // namespace

qvl::Key keyFromDigits(std::string_view digits) {
    try {
        return qvl::Key::parse(digits);
    } catch (const qvl::Error&) {
        throw std::invalid_argument(
            "a key is 12 hexadecimal digits, \"factory\", \"mad\", @FILE or env:NAME; this has " +
            std::to_string(digits.size()) + " characters");
    }
}

qvl::Key keyFromText(const std::string& text) {
    if (text == "factory") return qvl::Key::factory();
    if (text == "mad") return qvl::Key::directory();
    if (text.starts_with('@')) {
        SecretText file;
        file.readFile(text.substr(1), kLongestKeyFile);
        return keyFromDigits(firstLine(file.text));
    }
    if (text.starts_with(kFromEnvironment)) {
        const std::string name = text.substr(kFromEnvironment.size());
        const char* value = std::getenv(name.c_str());
        if (!value) throw std::invalid_argument("the environment variable " + name + " is not set");
        return keyFromDigits(value);
    }
    return keyFromDigits(text);
}

SecretText::~SecretText() { ::explicit_bzero(text.data(), text.capacity()); }

void SecretText::readFile(const std::string& name, std::size_t limit) {
    std::ifstream file;
    file.rdbuf()->pubsetbuf(nullptr, 0);  // A buffer would keep a copy.
    file.open(name, std::ios::binary);
    text.resize(limit + 1);  // One more shows a file that is too long.
    if (file) file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad())
        throw std::invalid_argument(name + " cannot be read: " + std::generic_category().message(errno));
    if (static_cast<std::size_t>(file.gcount()) > limit)
        throw std::invalid_argument(name + " is longer than " + std::to_string(limit) + " bytes");
    text.resize(static_cast<std::size_t>(file.gcount()));
}
