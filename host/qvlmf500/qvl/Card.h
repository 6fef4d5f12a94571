#pragma once

#include "Bytes.h"
#include "Limit.h"
#include "QVLParamCollection.h"
#include "Session.h"
#include "Uid.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvl {

namespace detail {

/// The class of GET RESPONSE: the logical channel of the command and nothing else of it.
constexpr std::uint8_t channelOf(std::uint8_t classByte) {
    if ((classByte & 0xE0) == 0x00) return classByte & 0x03;
    if ((classByte & 0xC0) == 0x40) return classByte & 0x4F;
    return 0x00;
}

/// Where Le begins in a command APDU; its size if it has none.
inline std::size_t positionOfLe(ByteView command) {
    constexpr std::size_t kHeader = 4;
    if (command.size() <= kHeader + 1) return std::min(command.size(), kHeader);
    const bool isExtended = command[kHeader] == 0 && command.size() >= kHeader + 3;
    if (!isExtended) return std::min<std::size_t>(command.size(), kHeader + 1 + command[kHeader]);
    if (command.size() == kHeader + 3) return kHeader;
    const std::size_t length = static_cast<std::size_t>(command[kHeader + 1] << 8 | command[kHeader + 2]);
    return std::min(command.size(), kHeader + 3 + length);
}

/// An extended Le keeps its form: two bytes, after a zero where there is no Lc.
inline Bytes withLe(ByteView command, std::uint8_t le) {
    const std::size_t position = positionOfLe(command);
    Bytes repeated(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(position));
    const std::size_t size = command.size() - position;
    for (std::size_t i = 1; i < size; ++i)
        repeated.push_back(le == 0 && i + 1 == size ? 1 : 0);
    repeated.push_back(le);
    return repeated;
}

}  // namespace detail

/// What a smart card answered to a command APDU (ISO/IEC 7816-4).
struct ApduAnswer {
    Bytes data;  ///< Without the status word.
    std::uint8_t sw1 = 0, sw2 = 0;
    std::vector<Bytes> followUps{};  ///< What Card::exchange has sent after the command.

    std::uint16_t statusWord() const { return static_cast<std::uint16_t>(sw1 << 8 | sw2); }
    bool ok() const { return statusWord() == 0x9000; }
};

/// How a command goes to a card.
struct SendOptions {
    std::uint8_t nad = 0;  ///< Node address, for cards that take one.
    bool raw = false;      ///< Without a place for a node address.
    bool retry =
        false;  ///< For a command that may be repeated: if the exchange fails, wake the card and send once more.
};

/// A session with a smart card (ISO/IEC 14443-4) that a Reader has opened. It ends with this object, which moves and
/// does not copy. Several can be open at once. One thread at a time.
class Card {
  public:
    Card(Card&& other) noexcept = default;
    Card& operator=(Card&& other) noexcept {
        if (this == &other) return *this;
        end();
        mSession = std::move(other.mSession);
        mUid = other.mUid;
        mNumber = other.mNumber;
        mAts = std::move(other.mAts);
        return *this;
    }
    ~Card() { end(); }

    const Uid& uid() const { return mUid; }
    /// Answer to select, its length byte first.
    const Bytes& ats() const { return mAts; }

    /// Its number on the line, 0 to 15.
    std::uint8_t number() const { return mNumber; }

    /// Sends bytes and gives the answer as it comes. @throws Error: lost if the exchange failed, and then it is not
    /// known whether the card has done what it was told; notPermitted (status -50) for an answer above 4096 bytes,
    /// whose rest is dropped.
    Bytes transmit(ByteView command, const Limit& limit = Limit(std::chrono::seconds(5)),
                   const SendOptions& options = {}) {
        if (!mSession) throw Error(Reason::noReader, "the session with the card is closed");
        detail::Call call(mSession, limit);
        Bytes answer;
        const int status = sendOnce(call, command, options, answer);
        if (status == kTclRestPending) dropRest(call, command, options);
        if (status == kTclDeselected || status == kTclNotDeselected) std::exchange(mSession, nullptr)->leaveCard(mUid);
        if (status != kOk) call.fail(status, "card " + mUid.text());
        return answer;
    }
    /// Sends a command APDU, fetches what waits (61xx) with GET RESPONSE, and repeats a command with a wrong Le (6Cxx)
    /// with the right one. A card that goes on for ever is left after 512 commands, with what it has given.
    /// @throws Error as transmit; content for an answer without a status word.
    ApduAnswer exchange(ByteView command, const Limit& limit = Limit(std::chrono::seconds(5)),
                        const SendOptions& options = {}) {
        constexpr std::uint8_t kMoreWaits = 0x61, kWrongLe = 0x6C, kGetResponse = 0xC0;
        constexpr std::size_t kMostFollowUps = 512;
        ApduAnswer whole;
        const auto send = [&](ByteView each) {
            const Bytes bytes = transmit(each, limit, options);
            constexpr std::size_t kStatusWord = 2;
            if (bytes.size() < kStatusWord) throw Error(Reason::content, "the answer of the card has no status word");
            whole.data.insert(whole.data.end(), bytes.begin(), bytes.end() - kStatusWord);
            whole.sw1 = bytes[bytes.size() - 2];
            whole.sw2 = bytes.back();
        };
        const auto follow = [&](Bytes next) {
            whole.followUps.push_back(std::move(next));
            send(whole.followUps.back());
        };
        send(command);
        if (whole.sw1 == kWrongLe) follow(detail::withLe(command, whole.sw2));
        while (whole.sw1 == kMoreWaits && whole.followUps.size() < kMostFollowUps)
            follow({detail::channelOf(command.empty() ? std::uint8_t{0} : command[0]), kGetResponse, 0, 0, whole.sw2});
        return whole;
    }

    /// Deselects the card. Its operations then throw Error (noReader).
    void close() {
        const detail::SessionPtr session = std::exchange(mSession, nullptr);
        if (!session) return;
        session->leaveCard(mUid);
        detail::Call call(session, Limit(std::chrono::seconds(1)));
        QVLParamCollection in;
        TagUID tag = tagUid();
        in.addParameter(tag);
        in.rewind();
        detail::FromLibrary<QVLParamCollection> out(call.library());
        const int status = call.library().runCommand(kDeselect, in, out.out());
        if (status != kOk) call.fail(status, "card " + mUid.text());
    }

  private:
    friend class Reader;
    Card(detail::SessionPtr session, const Uid& uid, std::uint8_t number, Bytes ats)
        : mSession(std::move(session)), mUid(uid), mNumber(number), mAts(std::move(ats)) {
        mSession->enterCard(mUid);
    }

    static constexpr int kSend = 40, kSendRaw = 41, kDeselect = 43;

    TagUID tagUid() const {
        return {mUid.bytes().data(), static_cast<std::uint32_t>(mUid.bytes().size()), kTagUnknown};
    }
    void end() noexcept {
        try {
            close();
        } catch (const std::exception&) {
            // The card is out of the field, or the reader is: the session is over either way.
        }
    }
    int sendOnce(detail::Call& call, ByteView command, const SendOptions& options, Bytes& answer) const {
        QVLParamCollection in;
        TagUID tag = tagUid();
        constexpr std::uint32_t kUnused = 0;
        bool isComplete = in.addParameter(tag) == kMemoryOk;
        if (!options.raw) isComplete = isComplete && in.addByte(options.nad) == kMemoryOk;
        isComplete = isComplete && in.addBytes(static_cast<std::uint32_t>(command.size()), command.data()) == kMemoryOk;
        if (options.raw) isComplete = isComplete && in.addLong(kUnused) == kMemoryOk;
        isComplete = isComplete && in.addByte(static_cast<std::uint8_t>(options.retry)) == kMemoryOk;
        if (!isComplete) return kStreamFull;
        in.rewind();
        detail::FromLibrary<QVLParamCollection> out(call.library());
        const int status = call.library().runCommand(options.raw ? kSendRaw : kSend, in, out.out());
        if (status != kOk) return status;
        out.get()->rewind();
        std::uint32_t length = 0;
        std::uint8_t* data = nullptr;
        if (const int got = out.get()->getBytes(length, data); got != kMemoryOk) return got;
        const std::unique_ptr<std::uint8_t[]> owner(data);
        answer.assign(data, data + (data ? length : 0));
        return kOk;
    }
    /// What the library keeps of an answer would be taken for that of the next command.
    void dropRest(detail::Call& call, ByteView command, SendOptions options) const {
        constexpr int kMostRests = 64;
        options.retry = false;
        Bytes rest;
        for (int i = 0; i < kMostRests && sendOnce(call, command, options, rest) == kTclRestPending; ++i) {
        }
    }
    detail::SessionPtr mSession;  // null once it is closed
    Uid mUid;
    std::uint8_t mNumber;
    Bytes mAts;
};

}  // namespace qvl
