#include "Terminal.h"

#include <unistd.h>

bool terminal::isThere() { return ::isatty(STDERR_FILENO) == 1; }

void terminal::say(std::string_view text) {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}
