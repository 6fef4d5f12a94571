#include "OperationFrame.h"

#include "TagPromptControl.h"

OperationFrame::OperationFrame(QvlMf500ReaderImpl& reader)
    : mReader(reader), mLock(reader), mStatus(reader.isReady() ? kOk : kReaderNotReady),
      mReaderIsReady(mStatus == kOk) {}

OperationFrame::OperationFrame(QvlMf500ReaderImpl& reader, int readerId, TagUID& tag) : OperationFrame(reader) {
    if (!mReaderIsReady) return;
    showPrompt();
    mStatus = reader.activateTag(readerId, tag);
    if (entered() && reader.mSakSeen) holdType(tag);
}

OperationFrame::~OperationFrame() {
    mReader.mHeldTagType.reset();
    if (mReaderIsReady) mReader.haltAllTag(mTagIsSelected);
    if (mPromptIsOurs) closeTagPrompt();
}

void OperationFrame::showPrompt() { mPromptIsOurs = mReader.showTagPrompt(); }
