#include "Text.h"

#include <algorithm>
#include <array>
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
        text += (text.empty() ? "" : "\n") + label + std::string(width + 2 - label.size(), ' ') + value;
    }
    return text;
}
