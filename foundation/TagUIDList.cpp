#include "TagUIDList.h"

#include <new>

TagUIDListNode::TagUIDListNode(const TagUID& tag, TagUIDListNode* next)
    : mTag(new (std::nothrow) TagUID(tag)), mNext(next) {}

TagUIDListNode::~TagUIDListNode() { delete mTag; }

TagUIDListNode* TagUIDListIterator::next() {
    TagUIDListNode* node = mCurrent;
    if (node) mCurrent = node->getNext();
    return node;
}

TagUIDList::TagUIDList() : mHead(nullptr), mTail(nullptr), mCount(0) {}

TagUIDList::~TagUIDList() { clear(); }

void TagUIDList::append(TagUIDListNode* node) {
    if (!node) return;
    node->setNext(nullptr);
    if (mTail)
        mTail->setNext(node);
    else
        mHead = node;
    mTail = node;
    ++mCount;
}

TagUIDListIterator* TagUIDList::newIterator() const { return new (std::nothrow) TagUIDListIterator(mHead); }

void TagUIDList::clear() {
    while (mHead) {
        TagUIDListNode* next = mHead->getNext();
        delete mHead;
        mHead = next;
    }
    mTail = nullptr;
    mCount = 0;
}
