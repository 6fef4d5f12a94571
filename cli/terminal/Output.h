#pragma once

#include "Descriptor.h"
#include "Json.h"
#include "Outcome.h"

#include <string>
#include <string_view>

/// What the program says, in one of two forms: text for people, with complaints on standard error, or one JSON object a
/// line on standard output for everything. For one thread at a time.
///
/// Takes standard output for itself: whatever else in the process writes there (the library does in rare failures)
/// lands on standard error from then on.
class Output {
  public:
    explicit Output(bool json);

    bool isJson() const { return mJson; }
    /// False once nobody can read any more, as after "| head".
    bool isOpen() const { return mOpen; }

    /// A result: the object, or the text with a newline after it.
    void put(const Json& object, std::string_view text);
    /// A remark beside the results.
    void note(const std::string& text);
    /// A complaint; `where` says what it is about, such as "sector 3", and may be empty. @return the problem's outcome.
    Outcome error(const Problem& problem, const std::string& where = {});
    /// A line on the terminal that stays until something else is said. Nothing without a terminal.
    void line(const std::string& text);
    void eraseLine();
    /// A line that asks the user for something; without a terminal it is said once, and never beside JSON.
    void prompt(const std::string& text);
    /// Text for standard output that is the same in both forms, such as help.
    void plain(std::string_view text);

  private:
    void writeLine(const Json& object);

    const bool mJson;
    bool mOpen;
    const bool mOnTerminal;
    std::string mLine;  // on the terminal now
    bool mHasPrompted = false;
    Descriptor mOut;
};
