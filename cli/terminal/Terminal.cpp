#include "Terminal.h"

#include <cstdlib>
#include <unistd.h>

bool terminal::isThere() {
    const char* type = std::getenv("TERM");
    const bool isDumb = type != nullptr && std::string_view(type) == "dumb";
    return !isDumb && ::isatty(STDERR_FILENO) == 1;
}

void terminal::say(std::string_view text) {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}
