#pragma once

#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "TagPromptScope.h"

#include <optional>

/// The frame of an operation on the memory of one tag: reader lock, prompt, selection of the tag. Its end undoes the
/// stages that were reached, in reverse: the tag is halted, the prompt goes down, the lock is free.
class OperationFrame {
  public:
    /// Selects `tag`, waiting for it under the prompt. See entered().
    OperationFrame(QvlMf500ReaderImpl& reader, int readerId, TagUID& tag) : OperationFrame(reader) {
        if (!entered()) return;
        showPrompt();
        mStatus = reader.activateTag(readerId, tag);
    }
    /// Takes the lock only, for operations that find their tag by themselves.
    explicit OperationFrame(QvlMf500ReaderImpl& reader) : mReader(reader), mLock(reader) {
        if (!reader.mInitialised)
            mStatus = kReaderNotReady;
        else
            mHalt.emplace(reader);
    }
    OperationFrame(const OperationFrame&) = delete;
    OperationFrame& operator=(const OperationFrame&) = delete;

    /// False when the operation has to end with status() at once.
    bool entered() const { return mStatus == kOk; }
    int status() const { return mStatus; }
    void showPrompt() { mPrompt.emplace(mReader); }

    /// The way out: says how the operation went, so that a tag that is still selected is halted first. @return `status`
    int finish(int status) { return finish(status, status == kOk); }
    int finish(int status, bool tagIsSelected) {
        if (mHalt) mHalt->selectedFirst(tagIsSelected);
        return status;
    }

  private:
    QvlMf500ReaderImpl& mReader;
    ReaderLock mLock;
    int mStatus = kOk;
    std::optional<TagPromptScope> mPrompt;
    std::optional<HaltAtEnd> mHalt;
};
