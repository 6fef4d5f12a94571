#pragma once

#include "Session.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

/// A smart card (ISO/IEC 14443-4) from its activation to its deselection, which the end of the scope makes sure of.
/// Statuses are those of the library, 3100 is success.
class CardSession {
  public:
    using Bytes = std::vector<std::uint8_t>;

    struct Options {
        std::uint8_t nad = 0;
        bool retry = false;  ///< After a failed exchange: wake the card and send once more.
        bool raw = false;    ///< The command of the library without a NAD.
    };
    struct Card {
        Bytes uid;
        std::optional<std::uint8_t> cid;  ///< None, and no ATS, for a card that the first command will wake.
        Bytes ats;
    };
    struct Answer {
        int status = 0;
        Bytes bytes;
        std::size_t lost = 0;  ///< Bytes that came before these and are gone: the library hands out 4096 at most.
    };

    CardSession(Session& session, Options options) : mSession(session), mOptions(options) {}
    ~CardSession() { close(); }
    CardSession(const CardSession&) = delete;
    CardSession& operator=(const CardSession&) = delete;

    /// Waits for a card; 0 ms stands for the usual time. An empty `uid` is any card. If another one than the wanted
    /// answers it is deselected, and the wanted one is left to be woken by the first command.
    int waitForCard(const Bytes& uid, std::chrono::milliseconds timeout);
    const Card& card() const { return mCard; }
    /// After status -50 the answer is the rest that was still to be had.
    Answer send(const Bytes& command);
    /// Deselects the card, once. 3100 when there is none.
    int close();

  private:
    int sendOnce(const Bytes& command, bool retry, Bytes& answer);

    Session& mSession;
    const Options mOptions;
    Card mCard;
    bool mIsOpen = false;
};
