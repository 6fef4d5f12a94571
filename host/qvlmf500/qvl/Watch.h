#pragma once

#include "Limit.h"
#include "Session.h"
#include "Uid.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

namespace qvl {

/// What happened in the field of a reader or to the reader itself.
struct Event {
    enum class Kind : std::uint8_t { tagArrived, tagLeft, readerLost, readerBack };

    Kind kind;
    std::chrono::system_clock::time_point time;
    Uid uid;                 ///< Of the tag; empty for events of the reader.
    std::uint32_t type = 0;  ///< Of the tag (TagTypes.h).
};

/// "tag arrived", "tag left", "reader lost", "reader back".
constexpr const char* name(Event::Kind kind) {
    constexpr const char* kNames[] = {"tag arrived", "tag left", "reader lost", "reader back"};
    return kNames[static_cast<std::uint8_t>(kind)];
}

/// Watches the field of a reader: a tag that comes and one that goes are told once each, in their order, several tags
/// at once included. It looks while somebody waits for an event, about ten times a second, gives way to the operations
/// of all threads, and rests while a card session is open. A tag that is missing in two looks in a row has left. While
/// the reader is lost no tag leaves; what changed meanwhile is told after its return. One thread at a time.
class Watch {
  public:
    /// The next event; none when the limit is over or its stop token says so. @throws Error (noReader) if the reader
    /// object was closed, (readerBusy) if another program has kept the reader since the watch was made.
    std::optional<Event> next(const Limit& limit = {}) {
        if (mPending.empty() && limit.stop().stop_requested()) return std::nullopt;
        if (mPending.empty() && !lookUntilEvent(limit)) return std::nullopt;
        const Event event = mPending.front();
        mPending.pop_front();
        return event;
    }

    class Iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Event;
        using difference_type = std::ptrdiff_t;
        using pointer = const Event*;
        using reference = const Event&;

        Iterator() = default;
        explicit Iterator(Watch& watch) : mWatch(&watch) { ++*this; }
        const Event& operator*() const { return *mEvent; }
        const Event* operator->() const { return &*mEvent; }
        Iterator& operator++() {
            mEvent = mWatch->next(mWatch->mLimit);
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(const Iterator& iterator, std::default_sentinel_t) { return !iterator.mEvent; }

      private:
        Watch* mWatch = nullptr;
        std::optional<Event> mEvent;
    };
    /// All events up to the limit that the watch was made with.
    Iterator begin() { return Iterator(*this); }
    std::default_sentinel_t end() const { return {}; }

  private:
    friend class Reader;
    Watch(detail::SessionPtr session, const Limit& limit)
        : mSession(std::move(session)), mLimit(limit), mChangesTold(mSession ? mSession->changeCount() : 0) {}

    struct Known {
        detail::Seen tag;
        int misses = 0;
    };

    void tell(Event::Kind kind, const detail::Seen& tag = {}) {
        mPending.push_back({kind, std::chrono::system_clock::now(), tag.uid, tag.type});
    }
    /// @return false when the limit is over.
    bool lookUntilEvent(const Limit& limit) {
        constexpr std::uint32_t kBetweenLooksMs = 100;
        detail::Call call(mSession, limit);
        if (mHadReader) call.hadReader();
        for (;;) {
            look(call);
            mHadReader = mHadReader || call.hasHadReader();
            if (!mPending.empty()) return true;
            if (call.pause(kBetweenLooksMs)) continue;
            throwUnlessLimit(call);
            return false;
        }
    }
    void look(detail::Call& call) {
        if (!mSession->openCards().empty()) return;
        tellNewlyAwake(call);
        const auto seen = detail::listField(call);
        const bool isThere = tellReader();
        if (seen && isThere) compare(*seen);
    }
    /// A tag that answers an unforced poll is new, or it has left the field since it was put to sleep. A start of the
    /// reader wakes all tags.
    void tellNewlyAwake(detail::Call& call) {
        constexpr int kMostTags = 64;
        const detail::Call::Look look(call);
        bool isRestarted = false;
        for (int i = 0; i < kMostTags; ++i) {
            detail::FromLibrary<EventObject> event(call.library());
            if (!call.library().pollTag(event.out(), false, true)) return;
            isRestarted = isRestarted || mSession->changeCount() != mChangesTold;
            tellReader();
            std::uint32_t length = 0;
            std::uint8_t* bytes = nullptr;
            event.get()->getUid(length, bytes);
            const std::unique_ptr<std::uint8_t[]> owner(bytes);
            const detail::Seen tag{Uid(ByteView(bytes, std::min<std::size_t>(length, Uid::kMostBytes))),
                                   wireToTagType(event.get()->getType())};
            const auto known = std::ranges::find(mKnown, tag.uid, [](const Known& each) { return each.tag.uid; });
            if (known != mKnown.end()) {
                if (isRestarted) continue;
                mKnown.erase(known);
                tell(Event::Kind::tagLeft, tag);
            }
            arrive(tag);
        }
    }
    /// @return false while the reader is lost.
    bool tellReader() {
        for (const bool isReady : mSession->changesSince(mChangesTold)) {
            ++mChangesTold;
            if (isReady != mIsLost) continue;
            mIsLost = !isReady;
            tell(isReady ? Event::Kind::readerBack : Event::Kind::readerLost);
        }
        return !mIsLost;
    }
    void compare(const std::vector<detail::Seen>& seen) {
        constexpr int kMissesOfATagThatLeft = 2;
        for (Known& known : mKnown)
            known.misses = detail::contains(seen, known.tag.uid) ? 0 : known.misses + 1;
        std::erase_if(mKnown, [this](const Known& known) {
            if (known.misses < kMissesOfATagThatLeft) return false;
            tell(Event::Kind::tagLeft, known.tag);
            return true;
        });
        for (const detail::Seen& tag : seen)
            if (std::ranges::none_of(mKnown, [&](const Known& known) { return known.tag.uid == tag.uid; })) arrive(tag);
    }
    void arrive(const detail::Seen& tag) {
        mKnown.push_back({tag});
        tell(Event::Kind::tagArrived, tag);
    }
    static void throwUnlessLimit(detail::Call& call) {
        try {
            call.throwEnd(kCancelled);
        } catch (const Error& error) {
            if (error.reason() != Reason::cancelled) throw;
        }
    }

    detail::SessionPtr mSession;
    Limit mLimit;
    std::size_t mChangesTold;
    bool mIsLost = false;
    bool mHadReader = false;
    std::vector<Known> mKnown;
    std::deque<Event> mPending;
};

}  // namespace qvl
