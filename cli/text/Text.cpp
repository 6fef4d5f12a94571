#include "Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <ctime>

namespace {

std::string formatted(const char* format, const std::tm& parts) {
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

}  // namespace

std::string hexDigits(std::span<const std::uint8_t> bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

bool bytesFromHex(std::string_view digits, std::span<std::uint8_t> bytes) {
    if (digits.size() != 2 * bytes.size()) return false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char* pair = digits.data() + 2 * i;
        // from_chars alone would take a sign.
        if (!std::isxdigit(static_cast<unsigned char>(*pair))) return false;
        if (std::from_chars(pair, pair + 2, bytes[i], 16).ptr != pair + 2) return false;
    }
    return true;
}

std::optional<std::vector<std::uint8_t>> bytesFromHex(std::string_view text) {
    std::string digits;
    for (const char c : text)
        if (c != ' ' && c != ':') digits += c;
    std::vector<std::uint8_t> bytes(digits.size() / 2);
    if (!bytesFromHex(digits, bytes)) return std::nullopt;
    return bytes;
}

std::string printable(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
    return text;
}

std::string numberRanges(std::span<const int> numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t end = i + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
            ++end;
        if (!text.empty()) text += ", ";
        text += std::to_string(numbers[i]);
        if (end - i > 1) text += '-' + std::to_string(numbers[end - 1]);
        i = end;
    }
    return text;
}

std::string named(const std::string& what, std::span<const int> numbers) {
    return what + (numbers.size() == 1 ? " " : "s ") + numberRanges(numbers);
}

std::string counted(std::size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string clockTime(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    ::localtime_r(&time, &parts);
    return formatted("%H:%M:%S", parts);
}

std::string isoTime(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    return formatted("%Y-%m-%dT%H:%M:%SZ", parts);
}

std::int64_t secondsNow() { return std::time(nullptr); }

std::chrono::milliseconds fromSeconds(double seconds) {
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

std::string alignedRows(std::span<const std::pair<std::string, std::string>> rows) {
    std::size_t width = 0;
    for (const auto& [label, value] : rows)
        if (!value.empty()) width = std::max(width, label.size());
    std::string text;
    for (const auto& [label, value] : rows) {
        if (value.empty()) continue;
        if (!text.empty()) text += '\n';
        text += label;
        text.append(width + 2 - label.size(), ' ');
        text += value;
    }
    return text;
}

std::string alignedTable(std::span<const std::vector<std::string>> rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            line.append(widths[i] + 2 - row[i].size(), ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        if (!text.empty()) text += '\n';
        text += line;
    }
    return text;
}
