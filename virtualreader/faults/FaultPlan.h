#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// What goes wrong, and when. A plan is a text with one rule a line; the manual page of qvlreadersim documents it.
///
///     4A 1 no reply            the first 4A gets an ACK and nothing after it
///     40 from 3 status 14      the third 40 and all that follow are refused
///     write 2 torn 8           the power fails in the second write of a tag, after eight bytes
///     block from 2 wtx 10      a smart card asks for more time instead of every block but its first
enum class FaultEffect : std::uint8_t {
    none,
    // instead of an answer
    noAnswer,   ///< The command is lost: it is not carried out, and neither ACK nor reply comes.
    noAck,      ///< Carried out; the reply comes without an ACK.
    noReply,    ///< Carried out; only the ACK comes.
    nack,       ///< NACK instead of the ACK, then the reply.
    wrongAck,   ///< An ACK with a wrong byte, then the reply.
    error,      ///< Not carried out: ERROR frame instead of the reply.
    lateAck,    ///< ACK and reply are held back and go out before the answer to the next command.
    lateReply,  ///< The reply is held back and goes out before the answer to the next command.
    overdue,    ///< The reply comes `value` milliseconds late; in process, after the host's first time-out.
    replyTwice,
    endless,  ///< After the ACK bytes without end, until the next command.
    // another reply
    xorByte,  ///< Byte `offset` of the reply frame on the wire is XORed with `value`.
    wrongChecksum,
    wrongCode,     ///< Reply code of another command, in a sound frame.
    status,        ///< First data byte of the reply is `value`, and nothing follows. Not carried out.
    cut,           ///< The reply frame ends after `value` bytes.
    shortReply,    ///< A sound frame with only `value` data bytes.
    pad,           ///< A sound frame with `value` more data bytes, as many as fit.
    extended,      ///< An extended frame of `value` bytes in all instead of the reply.
    alreadyAwake,  ///< Reply to 4A: no target, and a further byte. Not carried out.
    // the reader
    vanishBefore,   ///< The reader vanishes before the command is carried out.
    vanishBetween,  ///< Between ACK and reply.
    vanishAfter,    ///< After the reply.
    outOfStep,      ///< The reader's key stream runs one byte ahead from this command on.
    // the tag, before the command
    tagGone,
    tagBack,
    tagBlinks,   ///< Away and back: the tag has lost its state.
    tagSwapped,  ///< Another tag lies in its place: the one named `tag`, or a twin with another UID.
    // a write of a tag
    powerLost,  ///< The tag loses its power after `value` bytes of the write and is gone.
    powerDips,  ///< The same, but the tag is back at once.
    // a block that a smart card sends; xorByte, cut and pad as well
    blockLost,
    blockLate,          ///< Held back; comes in place of the next block.
    blockBefore,        ///< The block before it comes once more, in its place.
    blockNumber,        ///< With the other block number.
    blockAcknowledges,  ///< R(ACK) in its place.
    blockControlByte,   ///< With `value` as its first byte.
    cardAsksForTime,    ///< S(WTX) with `value` first. The block follows when the reader has granted it.
    emptyChain,         ///< Chaining and no data. The data follow in the next block.
    cardDeaf,           ///< The card hears nothing after this block until the field goes.
    cardStaysAwake,     ///< Answers the deselection and is not deselected.
};

struct FaultRule {
    enum class When : std::uint8_t { command, any, write, block, deselect };

    When when = When::any;
    std::uint8_t command = 0;  ///< Command code, for When::command.
    std::uint32_t first = 1;   ///< The occurrence that is hit, counted from 1 when the rule came into the plan.
    bool andLater = false;     ///< All occurrences after that as well.
    FaultEffect effect = FaultEffect::none;
    std::uint32_t offset = 0;
    std::uint32_t value = 0;
    std::string tag;
    std::uint32_t seen = 0;  ///< Occurrences so far.
};

/// The rules in force. Of several rules that hit the same event the one that was added first wins.
class FaultPlan {
  public:
    /// Whether an effect exists for a model of reader.
    using Suits = bool (*)(FaultEffect effect);

    /// A plan whose texts may name all effects, or only those that suit.
    explicit FaultPlan(Suits suits = nullptr) : mSuits(suits) {}

    void add(FaultRule rule) { mRules.push_back(std::move(rule)); }
    void clear() { mRules.clear(); }
    bool isEmpty() const { return mRules.empty(); }
    const std::vector<FaultRule>& rules() const { return mRules; }

    /// Counts a command. @return the rule that hits it, null for none.
    const FaultRule* onCommand(std::uint8_t code);
    /// Counts a write of a tag.
    const FaultRule* onWrite();
    /// Counts a block that a smart card is about to send.
    const FaultRule* onBlock(bool answersDeselection);

    /// Adds one rule written as text. @return empty, or what is wrong with it; the plan is then unchanged.
    std::string addRule(std::string_view text);
    /// Adds all lines of a plan; empty lines and everything after # are skipped. @return empty, or "line N: cause";
    /// the plan is then unchanged.
    std::string addText(std::string_view text);

  private:
    template <typename Matches>
    const FaultRule* count(Matches matches);

    Suits mSuits;
    std::vector<FaultRule> mRules;
};
