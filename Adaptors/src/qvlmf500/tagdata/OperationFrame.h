#pragma once

#include "Guarded.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "TagArguments.h"

/// The frame of an operation on the memory of one tag: reader lock, prompt, selection of the tag. Its end undoes the
/// stages that were reached, in reverse: the tag is halted, the prompt goes down, the lock is free.
class OperationFrame {
  public:
    /// Selects `tag`, waiting for it under the prompt. See entered().
    OperationFrame(QvlMf500ReaderImpl& reader, int readerId, TagUID& tag);
    /// Takes the lock only, for operations that find their tag by themselves.
    explicit OperationFrame(QvlMf500ReaderImpl& reader);
    ~OperationFrame();
    OperationFrame(const OperationFrame&) = delete;
    OperationFrame& operator=(const OperationFrame&) = delete;

    /// False when the operation has to end with status() at once.
    bool entered() const { return mStatus == kOk; }
    int status() const { return mStatus; }
    void showPrompt();
    /// From here on a tag of another type is not this one, whatever UID it shows: the geometry that the operation
    /// started with holds to its end.
    void holdType(const TagUID& tag) { mReader.mHeldTagType = tag.getTagType(); }

    /// The way out: says how the operation went, so that a tag that is still selected is halted first. @return `status`
    int finish(int status) { return finish(status, status == kOk); }
    int finish(int status, bool tagIsSelected) {
        mTagIsSelected = tagIsSelected;
        return status;
    }

  private:
    QvlMf500ReaderImpl& mReader;
    ReaderLock mLock;
    int mStatus;
    bool mReaderIsReady;
    bool mPromptIsOurs = false;
    bool mTagIsSelected = false;
};

/// A whole operation on the tag that the host names: `body(known, frame)` runs once the tag is selected, `known` being
/// the host's own object, whose type the selection has refreshed. @return what `body` returns, or why it did not run.
template <typename Body>
int operateOn(const char* operation, QvlMf500ReaderImpl& reader, int readerId, const TagUID& tag, Body&& body) {
    return guarded(operation, int{kReaderFailed}, [&]() -> int {
        TagUID& known = refreshable(tag);
        OperationFrame frame(reader, readerId, known);
        return frame.entered() ? body(known, frame) : frame.status();
    });
}
