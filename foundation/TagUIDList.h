#pragma once

#include "TagUID.h"

#include <cstdint>

/// A tag in a TagUIDList. The node owns a copy of the tag that it was given.
class TagUIDListNode {
  public:
    TagUIDListNode(const TagUID& tag, TagUIDListNode* next);
    virtual ~TagUIDListNode();
    TagUIDListNode(const TagUIDListNode&) = delete;
    TagUIDListNode& operator=(const TagUIDListNode&) = delete;

    /// Null if there was no memory for the copy.
    TagUID* getTag() const { return mTag; }
    TagUIDListNode* getNext() const { return mNext; }
    void setNext(TagUIDListNode* next) { mNext = next; }

  private:
    TagUID* mTag;
    TagUIDListNode* mNext;
};

/// Walks a list. Stays good as long as the list is not changed.
class TagUIDListIterator {
  public:
    explicit TagUIDListIterator(TagUIDListNode* current) : mCurrent(current) {}
    virtual ~TagUIDListIterator() = default;

    bool atEnd() const { return mCurrent == nullptr; }
    /// The current node; moves on. Null at the end.
    TagUIDListNode* next();

  private:
    TagUIDListNode* mCurrent;
};

/// Singly linked list of tags. Owns its nodes.
class TagUIDList {
  public:
    TagUIDList();
    virtual ~TagUIDList();
    TagUIDList(const TagUIDList&) = delete;
    TagUIDList& operator=(const TagUIDList&) = delete;

    /// Takes `node` in at the tail and sets its next to null.
    void append(TagUIDListNode* node);
    std::uint32_t count() const { return mCount; }
    /// New iterator at the head, which the caller deletes; null without memory.
    TagUIDListIterator* newIterator() const;
    void clear();

  private:
    TagUIDListNode* mHead;
    TagUIDListNode* mTail;
    std::uint32_t mCount;
};
