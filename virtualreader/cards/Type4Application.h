#pragma once

#include "CardApplication.h"
#include "TagMemory.h"

/// The application of an NFC Forum Type 4 Tag, mapping version 2.0, with a capability container (E103) that cannot be
/// written and one NDEF file (E104) that can. The memory is that file: two bytes with the length of the message, high
/// byte first, the message, and free room up to the end.
class Type4Application : public CardApplication {
  public:
    static constexpr std::size_t kMinFile = 5;
    static constexpr std::size_t kMaxFile = 0x7FFF;  ///< As far as offsets of READ BINARY reach.

    /// `ndefFile` has kMinFile to kMaxFile bytes.
    explicit Type4Application(std::vector<std::uint8_t> ndefFile) : mFile(std::move(ndefFile)) {}

    Answer onCommand(std::span<const std::uint8_t> command) override;
    void onReset() override { mSelected = Selected::nothing; }
    TagMemory* memory() override { return &mFile; }
    std::unique_ptr<CardApplication> clone() const override;

  private:
    enum class Selected : std::uint8_t { nothing, application, capabilities, ndef };
    using Bytes = std::span<const std::uint8_t>;

    Answer select(Bytes command);
    Answer selectFile(Bytes id);
    Answer readBinary(Bytes command) const;
    Answer updateBinary(Bytes command);
    bool hasFile() const { return mSelected == Selected::capabilities || mSelected == Selected::ndef; }
    std::vector<std::uint8_t> capabilities() const;

    TagMemory mFile;
    Selected mSelected = Selected::nothing;
};
