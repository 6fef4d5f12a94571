#pragma once

#include <string>
#include <string_view>

/// A word of the user in double quotes, for a message.
inline std::string quoted(std::string_view text) {
    std::string out(1, '"');
    out.append(text).append(1, '"');
    return out;
}
