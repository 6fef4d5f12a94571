#pragma once

#include "ApduExchange.h"

/// Reads the NDEF message of an NFC Forum Type 4 Tag: its bytes, none for an empty message, or complains and gives the
/// outcome. No length that the card names is trusted.
Outcome readNdefMessage(Session& session, CardSession& card, CardSession::Bytes& message);
