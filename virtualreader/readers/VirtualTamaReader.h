#pragma once

#include "ReaderOptions.h"
#include "TamaFirmware.h"
#include "TamaLink.h"
#include "VirtualReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

/// A reader of the PN531 family, which speaks in frames.
class VirtualTamaReader : public VirtualReader {
  public:
    /// A reader on a field that may be shared with whoever moves the tags; without one it makes its own.
    explicit VirtualTamaReader(ReaderOptions options = {}, std::shared_ptr<VirtualField> field = {});
    ~VirtualTamaReader() override;

    /// LED byte of the last command 26; 0 at first.
    std::uint8_t ledByte() const override;
    bool isLinkKeyed() const override;

  private:
    void onBytes(Bytes bytes) override;
    void onHostChanged() override;
    void onPowerLost() override;
    void onTagsChanged() override;

    void onHostFrame(HostFrame& frame);
    void onCommand(HostFrame& frame);
    void handle(Bytes command, const FaultRule* fault);
    bool applyBefore(const FaultRule& fault);
    void sendAck(FaultEffect effect);
    void execute(Bytes command, const FaultRule* fault);
    void answer(const FaultRule* fault);
    void buildReply();
    void deliver(const FaultRule& fault, Bytes frame);
    void sendExtended(std::size_t total);

    TamaLink mLink;
    TamaFirmware mFirmware;
    bool mBabbling = false;
    TamaReply mReply;
    std::uint8_t mReplyCode = 0;
    std::array<std::uint8_t, kMaxReplyFrame> mLastFrame{};  ///< For a NACK of the host.
    std::size_t mLastFrameLength = 0;
};
