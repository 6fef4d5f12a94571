#pragma once

#include "qvl/Key.h"

#include <string>
#include <string_view>

/// A key as users give it: 12 hexadecimal digits, "factory", "mad", "@FILE" for the first line of a file, or "env:NAME"
/// for an environment variable. The last two keep it off the command line, which other users of the machine can see.
/// @throws std::invalid_argument, whose text says what is wrong and never shows a key.
qvl::Key keyFromText(const std::string& text);

/// The same for digits alone.
qvl::Key keyFromDigits(std::string_view digits);

/// A text that may hold keys; it wipes itself.
class SecretText {
  public:
    SecretText() = default;
    ~SecretText();
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;

    /// All of a file of at most `limit` bytes. @throws std::invalid_argument.
    void readFile(const std::string& name, std::size_t limit);

    std::string text;
};
