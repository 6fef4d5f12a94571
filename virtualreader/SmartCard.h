#pragma once

#include "VirtualTag.h"

#include <random>
#include <vector>

/// A card after ISO/IEC 14443-4: RATS, PPS, deselection and the block rules. It takes each complete command and answers
/// "instruction not supported", 6D 00.
class SmartCard : public VirtualTag {
  public:
    /// `ats` without its length byte; empty for a card whose ATS is the length byte alone.
    SmartCard(std::span<const std::uint8_t> uid, std::vector<std::uint8_t> ats);

    const char* kind() const override { return "smart card"; }
    std::shared_ptr<VirtualTag> twin() const override;
    std::span<const std::uint8_t> ats() const { return mAts; }

  protected:
    void onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) override;
    bool isInProtocol() const override { return mInProtocol; }
    void onReset() override;
    void onFieldOn() override;

    /// The answer to one complete command.
    virtual std::vector<std::uint8_t> onCommand(std::span<const std::uint8_t> command);

  private:
    struct Block;

    std::uint8_t interfaceByteTc1() const;
    bool isForUs(const Block& block);
    void onRats(std::uint8_t parameter, AirAnswer& answer);
    void onPps(std::span<const std::uint8_t> frame, AirAnswer& answer);
    void onInformation(const Block& block, AirAnswer& answer);
    void onReceipt(const Block& block, AirAnswer& answer);
    void answerBlock(std::uint8_t pcb, const Block& to, std::span<const std::uint8_t> payload, AirAnswer& answer);

    std::vector<std::uint8_t> mAts;
    std::minstd_rand mRandom;
    bool mInProtocol = false;
    bool mPpsAllowed = false;
    bool mCidKnown = false;
    std::uint8_t mCid = 0;
    std::uint8_t mBlockNumber = 1;       ///< Of the block sent last; 1 before the first.
    std::vector<std::uint8_t> mCommand;  ///< Chained parts of a command so far.
    std::vector<std::uint8_t> mLastBlock;
};
