#pragma once

#include "CardSession.h"
#include "StatusWords.h"

/// A command and what the card had to say to it.
struct ApduExchange {
    using Bytes = CardSession::Bytes;

    int status = 0;  ///< Of the library.
    Bytes data;      ///< Without the status word.
    std::optional<StatusWord> statusWord;
    std::size_t lost = 0;          ///< See CardSession::Answer.
    std::vector<Bytes> followUps;  ///< What was sent after the command to get all of its answer.
};

/// Sends a command APDU. With `follow`, bytes that wait (61xx) are fetched with GET RESPONSE, and a command with a
/// wrong Le (6Cxx) is repeated once with the right one.
ApduExchange exchangeApdu(CardSession& card, const CardSession::Bytes& command, bool follow);
