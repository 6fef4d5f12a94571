#include "ApduExchange.h"

#include "ServiceStatus.h"

#include <algorithm>
#include <utility>

namespace {

using Bytes = CardSession::Bytes;

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kMostFollowUps = 512;
constexpr std::uint8_t kGetResponse = 0xC0;

/// The class of GET RESPONSE: the logical channel of the command and nothing else of it.
std::uint8_t channelOf(std::uint8_t cla) {
    if ((cla & 0xE0) == 0x00) return cla & 0x03;
    if ((cla & 0xC0) == 0x40) return cla & 0x4F;
    return 0x00;
}

/// Where Le begins in a command; its size if it has none.
std::size_t positionOfLe(const Bytes& command) {
    if (command.size() <= kHeaderSize + 1) return kHeaderSize;
    const bool isExtended = command[kHeaderSize] == 0 && command.size() >= kHeaderSize + 3;
    if (!isExtended) return std::min<std::size_t>(command.size(), kHeaderSize + 1 + command[kHeaderSize]);
    if (command.size() == kHeaderSize + 3) return kHeaderSize;
    const std::size_t lc = static_cast<std::size_t>(command[kHeaderSize + 1] << 8 | command[kHeaderSize + 2]);
    return std::min(command.size(), kHeaderSize + 3 + lc);
}

Bytes withLe(const Bytes& command, std::uint8_t le) {
    const std::size_t position = positionOfLe(command);
    Bytes repeated(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(position));
    const std::size_t size = command.size() - position;
    // An extended Le keeps its form: two bytes, after a zero where there is no Lc.
    for (std::size_t i = 1; i < size; ++i)
        repeated.push_back(le == 0 && i + 1 == size ? 1 : 0);
    repeated.push_back(le);
    return repeated;
}

void sendAndAdd(CardSession& card, const Bytes& command, ApduExchange& exchange) {
    CardSession::Answer answer = card.send(command);
    exchange.status = answer.status;
    exchange.lost += answer.lost;
    exchange.statusWord = statusWordOf(answer.bytes);
    if (exchange.statusWord) answer.bytes.resize(answer.bytes.size() - sizeof(StatusWord));
    exchange.data.insert(exchange.data.end(), answer.bytes.begin(), answer.bytes.end());
}

bool wantsMore(const ApduExchange& exchange, std::uint8_t first) {
    return exchange.status == kOk && exchange.statusWord && sw1(*exchange.statusWord) == first;
}

}  // namespace

ApduExchange exchangeApdu(CardSession& card, const Bytes& command, bool follow) {
    ApduExchange exchange;
    const auto followUp = [&](Bytes next) {
        exchange.followUps.push_back(std::move(next));
        sendAndAdd(card, exchange.followUps.back(), exchange);
    };
    sendAndAdd(card, command, exchange);
    if (!follow) return exchange;
    if (wantsMore(exchange, kSw1WrongLe)) followUp(withLe(command, sw2(*exchange.statusWord)));
    while (wantsMore(exchange, kSw1MoreBytes) && exchange.followUps.size() < kMostFollowUps)
        followUp({channelOf(command[0]), kGetResponse, 0, 0, sw2(*exchange.statusWord)});
    return exchange;
}
