#include "Mf500Link.h"

#include <algorithm>

namespace {

bool isKeyCommand(std::uint8_t code) { return code == kMf500Config || code == kMf500ConfirmKey; }

}  // namespace

void Mf500Link::reset() {
    mStream.setKey({});
    mOffered.reset();
}

LinkKey Mf500Link::newKey() {
    LinkKey key;
    std::ranges::generate(key, [this] { return static_cast<std::uint8_t>(mRandom() >> 8); });
    return key;
}

void Mf500Link::open(std::uint8_t code, std::span<std::uint8_t> parameters) {
    if (code != kMf500Config && code != kMf500ExchangeBlock) mStream.crypt(parameters);
}

Mf500Status Mf500Link::agree(std::span<const std::uint8_t> challenge, Values& values) {
    constexpr std::size_t kUnusedBytes = 4;
    values.clear();
    reset();
    LinkKey asked;
    if (challenge.size() != asked.size()) return Mf500Status::badParameter;
    if (!mOptions.knowsLinkKey) return Mf500Status::ok;
    std::ranges::copy(challenge, asked.begin());
    mConfirmation = deriveLinkKey(asked);
    mOffered = mOptions.zeroSessionKey ? LinkKey{} : newKey();
    values.assign(mConfirmation.begin(), mConfirmation.end());
    values.resize(values.size() + kUnusedBytes);
    values.insert(values.end(), mOffered->begin(), mOffered->end());
    mStream.setKey(mConfirmation);
    return Mf500Status::ok;
}

Mf500Status Mf500Link::confirm(std::span<const std::uint8_t> confirmation) {
    if (!mOptions.knowsLinkKey) return Mf500Status::unknownCommand;
    if (std::ranges::equal(confirmation, mConfirmation)) return Mf500Status::ok;
    reset();
    return Mf500Status::notAuthenticated;
}

void Mf500Link::seal(std::uint8_t code, Mf500Status status, Values& values, std::vector<std::uint8_t>& message) {
    std::optional<LinkKey> next = mOffered;
    mOffered.reset();
    if (!next && isKeyed() && !isKeyCommand(code)) {
        next = newKey();
        values.insert(values.end(), next->begin(), next->end());
    }
    if (code != kMf500ExchangeBlock) mStream.crypt(values);
    if (next) mStream.setKey(*next);
    const auto number = static_cast<std::uint16_t>(status);
    message.resize(sizeof number + values.size());
    message[0] = static_cast<std::uint8_t>(number);
    message[1] = static_cast<std::uint8_t>(number >> 8);
    std::ranges::copy(values, message.begin() + sizeof number);
}
