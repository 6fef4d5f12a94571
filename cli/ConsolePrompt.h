#pragma once

#include "Interrupt.h"
#include "TagPrompt.h"

/// The tag prompt as a line on standard error, in place from construction to destruction. On a terminal the line goes
/// away with the prompt. Beside JSON output it is for terminals only: what a program collects stays free of it.
class ConsolePrompt final : public TagPromptSurface {
  public:
    ConsolePrompt(const Interrupt& interrupt, bool besideJson);
    ~ConsolePrompt() override;
    ConsolePrompt(const ConsolePrompt&) = delete;
    ConsolePrompt& operator=(const ConsolePrompt&) = delete;

    /// False once the user wants to end, so that no wait begins.
    bool show() override;
    void hide() override;

  private:
    const Interrupt& mInterrupt;
    const bool mOnTerminal;
    const bool mSilent;
};
