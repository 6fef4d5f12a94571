#pragma once

#include "ReaderOptions.h"
#include "TagSearch.h"
#include "TamaLink.h"
#include "VirtualField.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>

/// Command codes of the reader: those of the PN531, and four of its own.
enum TamaCode : std::uint8_t {
    kGetFirmwareVersion = 0x02,
    kSetParameters = 0x12,
    kLinkKeyExchange = 0x1C,
    kLinkKeyConfirm = 0x1E,
    kReaderIdentity = 0x24,
    kSwitchLed = 0x26,
    kRfConfiguration = 0x32,
    kInDataExchange = 0x40,
    kInCommunicateThru = 0x42,
    kInDeselect = 0x44,
    kInListPassiveTarget = 0x4A,
    kInRelease = 0x52,
    kInSelect = 0x54,
};

/// Status bytes of the PN531.
constexpr std::uint8_t kTamaOk = 0x00;
constexpr std::uint8_t kTamaTimeOut = 0x01;
constexpr std::uint8_t kTamaBufferTooSmall = 0x07;
constexpr std::uint8_t kTamaBadFormat = 0x13;
constexpr std::uint8_t kTamaAuthenticationError = 0x14;
constexpr std::uint8_t kTamaWrongContext = 0x27;

/// How a command came out.
struct TamaReply {
    enum class Kind {
        reply,
        error,    ///< Not understood: ERROR frame.
        pending,  ///< No answer yet: waits for a tag.
    };
    Kind kind = Kind::reply;
    std::size_t length = 0;
    std::array<std::uint8_t, kMaxReplyData> data;
    bool hasNewKey = false;  ///< Two keys of the link go with the reply.
    LinkKey replyKey{};      ///< Zeros: the reply goes out under the key in force.
    LinkKey nextKey{};       ///< In force after the reply.

    void clear() {
        kind = Kind::reply;
        length = 0;
        hasNewKey = false;
    }
    void put(std::uint8_t byte) {
        if (length < data.size()) data[length++] = byte;
    }
    void put(std::span<const std::uint8_t> bytes) {
        for (std::uint8_t byte : bytes)
            put(byte);
    }
};

/// The reader's commands on plain bytes: settings, targets, and the dialogue with the tags in the field. Called under
/// the field's lock.
class TamaFirmware {
  public:
    TamaFirmware(VirtualField& field, const ReaderOptions& options);

    /// State as after power-up: no targets, field off, endless wait for tags.
    void reset();
    /// Carries out a command, code and data.
    void execute(std::span<const std::uint8_t> command, TamaReply& reply);

    /// True while a search for tags waits; `poll` tries again, `cancel` gives it up.
    bool isPending() const { return mPendingLength != 0; }
    void poll(TamaReply& reply);
    void cancel() { mPendingLength = 0; }

    std::uint8_t ledByte() const { return mLedByte; }

  private:
    using Bytes = std::span<const std::uint8_t>;
    struct Handler;
    static const Handler kHandlers[];
    static const Handler* handlerOf(Bytes command);

    struct Target : FoundTag {
        bool inProtocol = false;  ///< The reader did RATS.
    };

    void getFirmwareVersion(Bytes data, TamaReply& reply);
    void setParameters(Bytes data, TamaReply& reply);
    void rfConfiguration(Bytes data, TamaReply& reply);
    void linkKeyExchange(Bytes data, TamaReply& reply);
    void linkKeyConfirm(Bytes data, TamaReply& reply);
    void readerIdentity(Bytes data, TamaReply& reply);
    void switchLed(Bytes data, TamaReply& reply);
    void inDataExchange(Bytes data, TamaReply& reply);
    void inCommunicateThru(Bytes data, TamaReply& reply);
    void inDeselect(Bytes data, TamaReply& reply);
    void inListPassiveTarget(Bytes data, TamaReply& reply);
    void inRelease(Bytes data, TamaReply& reply);
    void inSelect(Bytes data, TamaReply& reply);

    std::uint8_t exchangeBlocks(Bytes command);
    std::uint8_t authenticate(Bytes command);
    std::uint8_t oneStep(Bytes command);
    std::uint8_t twoSteps(Bytes command, bool endsInSilence);
    std::uint8_t statusOf(const AirAnswer& answer) const;

    bool activate(Bytes uid, Target& target);
    std::size_t rats(Target& target, std::span<std::uint8_t> ats);
    void report(const Target& target, TamaReply& reply) const;
    std::uint8_t deselect(const Target& target);
    std::uint8_t deselectAll(std::uint8_t number);
    std::uint8_t makeCurrent(std::uint8_t number);
    LinkKey newKey();

    static constexpr std::size_t kMaxPending = 16;
    static constexpr std::uint8_t kEndless = 0xFF;  ///< Retries of a search that has no end.

    VirtualField& mField;
    const ReaderOptions& mOptions;
    AirAnswer mAnswer;
    std::array<Target, 2> mTargets;
    std::size_t mTargetCount = 0;
    std::uint8_t mCurrent = 0;                         ///< Number of the target that is selected, from 1; 0 for none.
    std::array<std::uint8_t, kMaxPending> mPending{};  ///< A search that waits.
    std::size_t mPendingLength = 0;
    LinkKey mConfirmation{};
    std::uint8_t mParameters = 0;
    std::uint8_t mActivationRetries = 0;
    std::uint8_t mLedByte = 0;
    std::minstd_rand mRandom;
};
