#pragma once

#include "Native.h"
#include "Turns.h"

#include <memory>
#include <utility>

namespace native {

/// Ends something once no operation of this thread is running any longer, which may be now.
inline void endLater(std::function<void()> end) {
    if (hostWait() == nullptr)
        unlocked(end);
    else
        afterOperation.push_back(std::move(end));
}

/// A reader, closed at its end without the interpreter's lock, for closing waits for other threads.
class ReaderHandle {
  public:
    explicit ReaderHandle(qvl::Reader&& reader) : mReader(std::make_shared<qvl::Reader>(std::move(reader))) {}
    ~ReaderHandle() { close(); }
    ReaderHandle(const ReaderHandle&) = delete;
    ReaderHandle& operator=(const ReaderHandle&) = delete;

    void close() {
        closesReader = hostWait() != nullptr;
        endLater([reader = mReader] { reader->close(); });
    }
    qvl::Reader* operator->() const { return mReader.get(); }

  private:
    std::shared_ptr<qvl::Reader> mReader;
};

using WatchHandle = Turns<qvl::Watch>;

/// A session with a card, which ends without the interpreter's lock, for that is an exchange with the card.
class CardHandle {
  public:
    explicit CardHandle(qvl::Card&& card) : mCard(std::make_shared<Turns<qvl::Card>>(std::move(card))) {}
    ~CardHandle() {
        endLater([card = std::move(mCard)]() mutable { card.reset(); });
    }
    CardHandle(const CardHandle&) = delete;
    CardHandle& operator=(const CardHandle&) = delete;

    Turns<qvl::Card>* operator->() const { return mCard.get(); }
    const qvl::Card& operator*() const { return **mCard; }

  private:
    std::shared_ptr<Turns<qvl::Card>> mCard;
};

}  // namespace native
