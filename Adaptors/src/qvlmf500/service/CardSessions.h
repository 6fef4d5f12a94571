#pragma once

#include "QvlTcl.h"
#include "TagUID.h"
#include "TagWait.h"
#include "WipingAllocator.h"

#include <atomic>
#include <cstdint>

/// What goes to a card or comes from it; wiped when it dies.
using CardData = SecretVector;

/// Sessions with smart cards, by their UIDs: a card is found in the card table or woken, and waited for. Results are
/// those of the command door: 3100, or the status of what failed, as the card layer or the driver has it. Under the
/// reader lock.
class CardSessions {
  public:
    /// `waitMs` limits the waits without a time-out of their own. Both outlive this object.
    CardSessions(QvlTcl& cards, const std::atomic<std::uint32_t>& waitMs) : mCards(cards), mWaitMs(waitMs) {}

    /// One command and its answer. With `retry` a known card whose exchange failed is woken for a second one, as is a
    /// card that is new to the table.
    int send(const TagUID& tag, std::uint8_t nad, CardData& command, bool retry, CardData& answer);
    /// Waits for a card, the one named in `tag` if it is in the table, else any one, which `tag` then names.
    int waitForCard(TagUID& tag, int timeoutMs, std::uint8_t& cid, CardData& ats);
    /// Waits for the card of this UID beside those in the table and tells its number and ATS. One that is in the table
    /// begins anew. A reader that does RATS by itself holds one card: 3139 for another.
    int open(const TagUID& tag, std::uint8_t& cid, CardData& ats);
    int deselect(const TagUID& tag);
    int relay(CardData& command, CardData& reply);

  private:
    struct Card;

    int wake(Card& card, int timeoutMs);
    int activateAny(Card& card, int timeoutMs);
    template <typename Activate>
    int waitFor(int timeoutMs, Activate activate);
    bool hasCards() const;
    int fetchAts(std::uint8_t cid, CardData& ats);
    short exchange(std::uint8_t cid, std::uint8_t nad, CardData& command, CardData& answer);

    QvlTcl& mCards;
    const std::atomic<std::uint32_t>& mWaitMs;
};
