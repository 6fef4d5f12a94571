#include "ConsolePrompt.h"

#include "Terminal.h"

namespace {

constexpr std::string_view kPrompt = "Hold a tag to the reader, Ctrl-C cancels";

}  // namespace

ConsolePrompt::ConsolePrompt(const Interrupt& interrupt, bool besideJson)
    : mInterrupt(interrupt), mOnTerminal(terminal::isThere()), mMuted(besideJson && !mOnTerminal) {
    setTagPromptSurface(this);
}

ConsolePrompt::~ConsolePrompt() { setTagPromptSurface(nullptr); }

bool ConsolePrompt::show() {
    if (mInterrupt.requested()) return false;
    if (mMuted) return true;
    terminal::say(kPrompt);
    if (!mOnTerminal) {
        terminal::say("\n");
        mMuted = true;
    }
    return true;
}

void ConsolePrompt::hide() {
    if (mOnTerminal && !mMuted) terminal::say(terminal::kEraseLine);
}
