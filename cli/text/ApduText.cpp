#include "ApduText.h"

#include "Text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kRowSize = 16;

bool isSeparator(char c) { return std::isspace(static_cast<unsigned char>(c)) || c == ':'; }
bool isDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

std::string placeOf(std::size_t index) { return "character " + std::to_string(index + 1); }

[[noreturn]] void refuse(std::string_view text, std::size_t at) {
    const bool isPrintable = std::isprint(static_cast<unsigned char>(text[at])) != 0;
    throw std::invalid_argument(placeOf(at) + (isPrintable ? std::string(", '") + text[at] + "'," : std::string()) +
                                " is no hexadecimal digit");
}

}  // namespace

Bytes commandFromText(std::string_view text, bool raw) {
    Bytes bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (isSeparator(text[at])) {
            ++at;
            continue;
        }
        if (!isDigit(text[at])) refuse(text, at);
        if (at + 1 == text.size() || isSeparator(text[at + 1]))
            throw std::invalid_argument("the byte at " + placeOf(at) + " lacks its second digit");
        if (!isDigit(text[at + 1])) refuse(text, at + 1);
        std::uint8_t byte = 0;
        std::from_chars(text.data() + at, text.data() + at + 2, byte, 16);
        bytes.push_back(byte);
        at += 2;
    }
    if (bytes.empty()) throw std::invalid_argument("there are no bytes");
    if (!raw && bytes.size() < kHeaderSize)
        throw std::invalid_argument("a command APDU begins with 4 bytes, CLA INS P1 P2; here are " +
                                    std::to_string(bytes.size()));
    if (bytes.size() > kLongestApdu)
        throw std::invalid_argument("no command has more than " + std::to_string(kLongestApdu) + " bytes");
    return bytes;
}

std::optional<Bytes> commandFromLine(std::string_view line, bool raw) {
    line = line.substr(0, line.find('#'));
    if (std::ranges::all_of(line, isSeparator)) return std::nullopt;
    return commandFromText(line, raw);
}

std::vector<Bytes> commandsFromFile(const std::string& name, bool raw) {
    std::vector<Bytes> commands;
    std::ifstream file(name);
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        try {
            if (auto command = commandFromLine(line, raw)) commands.push_back(std::move(*command));
        } catch (const std::invalid_argument& wrong) {
            throw std::invalid_argument(name + ", line " + std::to_string(number) + ": " + wrong.what());
        }
    }
    if (!file.is_open() || file.bad())
        throw std::invalid_argument(name + " cannot be read: " + std::generic_category().message(errno));
    return commands;
}

std::string dumpRows(std::string_view prefix, std::span<const std::uint8_t> bytes) {
    const std::size_t width = 2 * std::min(bytes.size(), kRowSize);
    std::string text;
    while (!bytes.empty()) {
        const auto row = bytes.first(std::min(bytes.size(), kRowSize));
        bytes = bytes.subspan(row.size());
        std::string digits = hexDigits(row);
        digits.resize(width, ' ');
        if (!text.empty()) text += '\n';
        text.append(prefix).append(digits).append("  ").append(printable(row));
    }
    return text;
}
