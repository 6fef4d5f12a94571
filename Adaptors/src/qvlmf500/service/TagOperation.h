#pragma once

#include "Guarded.h"
#include "PromptWait.h"
#include "QvlMf500ReaderImpl.h"
#include "SelectedTag.h"
#include "TagArguments.h"
#include "TagPromptScope.h"

/// The frame of an operation on the memory of the tag that the host names: reader lock, prompt, selection of the tag.
/// Its end undoes the stages that were reached, in reverse: the tag is halted, with every other one, the prompt goes
/// down, the lock is free. `body(tag)` runs once the tag is selected. @return what it returns, or why it did not run.
template <typename Body>
int QvlMf500ReaderImpl::operateOn(const char* operation, const TagUID& tag, Body body) {
    return guarded(operation, int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(mReader);
        if (!revive()) return kReaderNotReady;
        const TagPromptScope prompt(*this);
        const HaltAtEnd halt(*this);
        PromptWait wait(mSuspendTime);
        WaitBudget budget(wait);
        SelectedTag selected(driver(), refreshable(tag), budget);
        const int status = selected.activate();
        return selected.end(status == kOk ? body(selected) : status);
    });
}
