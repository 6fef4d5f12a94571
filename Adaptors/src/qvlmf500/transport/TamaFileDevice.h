#pragma once

#include "DeviceNode.h"
#include "TamaDevice.h"

/// A reader at a device path that moves one frame per read and per write. Both directions are bounded by the given
/// time-out.
class TamaFileDevice : public TamaDevice {
  public:
    std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) override;
    std::int32_t CloseInterface() override;
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                     std::uint32_t timeout) override;
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                    std::uint32_t timeout) override;
    void discardInput() override;
    bool isGone() override { return mIsGone; }

  private:
    std::int32_t noted(platform::IoResult result);

    platform::DeviceNode mHandle;
    bool mIsGone = false;
};
