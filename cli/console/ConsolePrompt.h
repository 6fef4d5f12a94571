#pragma once

#include "Interrupt.h"
#include "TagPrompt.h"

#include <atomic>

/// The tag prompt as a line on standard error, in place from construction to destruction. On a terminal the line goes
/// away with the prompt; elsewhere it is said once. Beside JSON output it is for terminals only: what a program
/// collects stays free of it.
class ConsolePrompt final : public TagPromptSurface {
  public:
    ConsolePrompt(const Interrupt& interrupt, bool besideJson);
    ~ConsolePrompt() override;
    ConsolePrompt(const ConsolePrompt&) = delete;
    ConsolePrompt& operator=(const ConsolePrompt&) = delete;

    /// False once the user wants to end, so that no wait begins.
    bool show() override;
    void hide() override;

    /// Waits go on, but nothing is said of them.
    void mute(bool on) { mMuted = on; }

  private:
    const Interrupt& mInterrupt;
    const bool mOnTerminal;
    std::atomic<bool> mMuted;
};
