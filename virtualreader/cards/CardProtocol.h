#pragma once

#include "CardApplication.h"
#include "VirtualTag.h"

#include <memory>
#include <optional>
#include <span>
#include <vector>

class FaultPlan;
struct FaultRule;

/// The card's side of the block protocol of ISO/IEC 14443-4: numbers, chains in both directions, repetition, requests
/// for more time, deselection. It never recovers by itself: what it cannot use it ignores, and the reader asks again.
class CardProtocol {
  public:
    /// What the reader and the card told each other at activation. Frame sizes count the two CRC bytes.
    struct Terms {
        std::size_t readerFrame = 256;  ///< FSD.
        std::size_t cardFrame = 32;     ///< FSC; longer blocks are ignored.
        std::uint8_t cid = 0;
        bool cidIsFixed = false;  ///< Else the card takes the number of the first block that carries one.
        bool takesCid = true;
        bool takesNad = false;
    };
    enum class Outcome : std::uint8_t { ignored, taken, deselected, powerLost };

    /// Frame size by its index in RATS or ATS.
    static std::size_t frameSize(unsigned index);

    /// Null for a card that knows no instruction. `quirks` live as long as this.
    CardProtocol(const TagQuirks& quirks, std::unique_ptr<CardApplication> application)
        : mQuirks(quirks), mApplication(std::move(application)) {}

    CardApplication* application() const { return mApplication.get(); }
    /// Where the block faults come from; null for none. Not owned.
    void setFaults(FaultPlan* faults) { mFaults = faults; }

    /// The card was activated.
    void start(const Terms& terms);
    /// The session is over, in whatever way.
    void stop();
    bool isOn() const { return mOn; }
    /// True once a fault has made the card deaf, until `hearAgain`.
    bool isDeaf() const { return mDeaf; }
    void hearAgain() { mDeaf = false; }
    bool isMyCid(std::uint8_t cid) const { return !mCidKnown || cid == mTerms.cid; }

    /// One block of the reader. The answer is silence at entry.
    Outcome take(std::span<const std::uint8_t> frame, AirAnswer& answer);

  private:
    using Bytes = std::vector<std::uint8_t>;
    struct Block;

    bool isForUs(const Block& block);
    Outcome onInformation(const Block& block, AirAnswer& answer);
    Outcome onReceipt(const Block& block, AirAnswer& answer);
    Outcome onSupervisory(const Block& block, AirAnswer& answer);
    Outcome onMoreTime(const Block& block, AirAnswer& answer);
    Outcome onCommand(const Block& block, AirAnswer& answer);

    Bytes header(std::uint8_t pcb, std::optional<std::uint8_t> cid) const;
    Bytes receipt(std::optional<std::uint8_t> cid) const;
    Bytes nextPart(std::optional<std::uint8_t> cid);
    Bytes askForTime(Bytes block, std::uint8_t multiplier);
    Bytes emptied(Bytes block);
    void send(Bytes block, AirAnswer& answer);
    Bytes onTheAir(const FaultRule& fault, const Bytes& previous) const;

    const TagQuirks& mQuirks;
    std::unique_ptr<CardApplication> mApplication;
    FaultPlan* mFaults = nullptr;
    Terms mTerms;
    bool mOn = false;
    bool mDeaf = false;
    bool mStaysAwake = false;  ///< A fault keeps the card from going to rest.
    bool mCidKnown = false;
    std::uint8_t mNumber = 1;  ///< Of the block sent last; 1 before the first.
    Bytes mCommand;            ///< Chained parts of a command so far.
    std::optional<std::uint8_t> mNad;
    Bytes mAnswer;
    std::size_t mAnswerAt = 0;
    bool mMoreToSend = false;  ///< The information block sent last announced another one.
    Bytes mPostponed;          ///< What goes out once the reader has granted the time; empty when none is asked for.
    std::uint8_t mMultiplier = 0;
    unsigned mWtxLeft = 0;  ///< Further requests for time.
    Bytes mLastBlock;       ///< As the card meant it, for a repetition.
    Bytes mHeld;            ///< A block that a fault made late.
};
