#include "ConsolePrompt.h"

#include <string_view>
#include <unistd.h>

namespace {

constexpr std::string_view kPrompt = "Hold a tag to the reader, Ctrl-C cancels";
constexpr std::string_view kEraseLine = "\r\033[K";

void say(std::string_view text) {
    // A prompt that cannot be written is no reason to stop waiting.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

ConsolePrompt::ConsolePrompt(const Interrupt& interrupt, bool besideJson)
    : mInterrupt(interrupt), mOnTerminal(::isatty(STDERR_FILENO) == 1), mSilent(besideJson && !mOnTerminal) {
    setTagPromptSurface(this);
}

ConsolePrompt::~ConsolePrompt() { setTagPromptSurface(nullptr); }

bool ConsolePrompt::show() {
    if (mInterrupt.requested()) return false;
    if (mSilent) return true;
    say(kPrompt);
    if (!mOnTerminal) say("\n");
    return true;
}

void ConsolePrompt::hide() {
    if (mOnTerminal) say(kEraseLine);
}
