#pragma once

#include "Interrupt.h"

#include <memory>
#include <optional>
#include <string>

/// Lines of standard input. A request to end (Interrupt) ends them.
class InputLines {
  public:
    virtual ~InputLines() = default;
    /// The next line without its newline; none at the end.
    virtual std::optional<std::string> next() = 0;
    /// Whether somebody types them.
    virtual bool isInteractive() const { return false; }
};

/// From a terminal with a prompt, line editing and a history that lasts as long as the object; from anything else as
/// they come. A line that does not end within `longest` bytes comes in pieces.
std::unique_ptr<InputLines> openInputLines(const Interrupt& interrupt, const char* prompt, std::size_t longest);
