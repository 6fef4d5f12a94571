#pragma once

#include "Mf500Firmware.h"
#include "Mf500Link.h"
#include "ReaderOptions.h"
#include "VirtualReader.h"

#include <cstdint>
#include <memory>
#include <vector>

/// An MF RC500 reader, which speaks in messages: `receive` takes one command a call, and the sink gets one reply a
/// call. Without `knowsLinkKey` the link stays in the clear; of the other options it uses the session keys, the version
/// and the last four bytes of the serial number.
class VirtualMf500Reader : public VirtualReader {
  public:
    /// A reader on a field that may be shared with whoever moves the tags; without one it makes its own.
    explicit VirtualMf500Reader(ReaderOptions options = {}, std::shared_ptr<VirtualField> field = {});
    ~VirtualMf500Reader() override;

    /// Faults of this model: those of a message link, all of the tags, and all of the blocks of cards.
    static bool hasFault(FaultEffect effect);
    bool isLinkKeyed() const override;

  private:
    void onBytes(Bytes message) override;
    void onPowerLost() override;

    void handle(std::uint8_t code, const FaultRule* fault);
    Mf500Status execute(std::uint8_t code, const FaultRule* fault);
    void deliver(const FaultRule* fault);

    Mf500Link mLink;
    Mf500Firmware mFirmware;
    // Of the command under way; made once, so that a command costs no memory.
    std::vector<std::uint8_t> mCommand, mParameters, mMessage;
    Mf500Firmware::Values mValues;
};
