#pragma once

#include "CardProtocol.h"
#include "VirtualTag.h"

#include <memory>
#include <random>
#include <vector>

/// A card after ISO/IEC 14443-4: RATS, PPS, and from then on the block protocol, in which an application answers
/// the commands.
class SmartCard : public VirtualTag {
  public:
    /// `ats` without its length byte; empty for a card whose ATS is the length byte alone. Without an application every
    /// command is answered with "instruction not supported", 6D 00.
    SmartCard(std::span<const std::uint8_t> uid, std::vector<std::uint8_t> ats,
              std::unique_ptr<CardApplication> application = nullptr);

    const char* kind() const override { return "smart card"; }
    std::shared_ptr<VirtualTag> twin() const override;
    TagMemory* memory() override;
    void setFaults(FaultPlan* faults) override { mProtocol.setFaults(faults); }
    std::span<const std::uint8_t> ats() const { return mAts; }

  protected:
    void onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) override;
    bool isInProtocol() const override { return mProtocol.isOn() || mProtocol.isDeaf(); }
    void onReset() override;
    void onFieldOn() override;

  private:
    std::uint8_t interfaceByteTc1() const;
    void onRats(std::uint8_t parameter, AirAnswer& answer);
    void onPps(std::span<const std::uint8_t> frame, AirAnswer& answer);

    std::vector<std::uint8_t> mAts;
    std::minstd_rand mRandom;
    CardProtocol mProtocol;
    bool mPpsAllowed = false;
};
