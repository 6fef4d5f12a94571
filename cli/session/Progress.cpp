#include "Progress.h"

#include "Terminal.h"

Progress::Progress(Session& session, std::string what, int total)
    : mSession(session), mWhat(std::move(what)), mTotal(total), mOnTerminal(terminal::isThere()) {
    if (mOnTerminal) mSession.mutePrompt(true);
}

Progress::~Progress() {
    if (!mOnTerminal) return;
    terminal::say(terminal::kEraseLine);
    mSession.mutePrompt(false);
}

bool Progress::begins(int index) {
    if (mSession.interrupt().requested()) return false;
    if (mOnTerminal)
        terminal::say(std::string(terminal::kEraseLine) + mWhat + " " + std::to_string(index + 1) + " of " +
                      std::to_string(mTotal) + ", hold the tag still, Ctrl-C cancels");
    return true;
}
