#pragma once

#include "HostWait.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptControl.h"

/// The prompt of one operation: up at the start of the scope, down at its end if it was this operation's own. A host
/// that waits by itself needs none.
class TagPromptScope {
  public:
    explicit TagPromptScope(QvlMf500ReaderImpl& reader) : mIsOurs(hostWait() == nullptr && reader.showTagPrompt()) {}
    ~TagPromptScope() {
        if (mIsOurs) closeTagPrompt();
    }
    TagPromptScope(const TagPromptScope&) = delete;
    TagPromptScope& operator=(const TagPromptScope&) = delete;

  private:
    bool mIsOurs;
};

/// Sends every tag to sleep at the end of the scope.
class HaltAtEnd {
  public:
    explicit HaltAtEnd(QvlMf500ReaderImpl& reader) : mReader(reader) {}
    ~HaltAtEnd() { mReader.haltAllTag(false); }
    HaltAtEnd(const HaltAtEnd&) = delete;
    HaltAtEnd& operator=(const HaltAtEnd&) = delete;

  private:
    QvlMf500ReaderImpl& mReader;
};
