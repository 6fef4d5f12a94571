#pragma once

#include "ClassicAccess.h"
#include "TagMemory.h"
#include "VirtualTag.h"

#include <optional>
#include <vector>

/// MIFARE Classic Mini, 1K or 4K by the size of its image (320, 1024, 4096 bytes), with the published access tables
/// enforced. Data sheets MF1S50yyX and MF1S70yyX.
class MifareClassicTag : public VirtualTag {
  public:
    /// A tag with a UID of four bytes, which the image's block 0 tells.
    explicit MifareClassicTag(std::vector<std::uint8_t> image);
    /// A tag whose UID (4 or 7 bytes) is told apart from the image.
    MifareClassicTag(std::vector<std::uint8_t> image, std::span<const std::uint8_t> uid);

    static bool isImageSize(std::size_t size);
    /// The image of a tag as delivered: zeros, keys FF, access bytes FF 07 80 69, block 0 made of the UID.
    static std::vector<std::uint8_t> blankImage(std::size_t size, std::span<const std::uint8_t> uid);

    const char* kind() const override;
    TagMemory* memory() override { return &mMemory; }
    std::shared_ptr<VirtualTag> twin() const override;

  protected:
    void onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) override;
    bool onAuthenticate(const Authentication& authentication) override;
    void onReset() override;

  private:
    struct Session {
        int trailer;  ///< Block number of the trailer of the authenticated sector.
        KeySet key;
    };
    struct TransferBuffer {
        std::uint32_t value;
        std::uint8_t address;
    };

    bool isBlock(int number) const { return static_cast<std::size_t>(number) < mMemory.size() / kBlockBytes; }
    std::span<const std::uint8_t> block(int number) const;
    std::optional<std::uint8_t> conditionOf(int number) const;
    bool mayBegin(std::uint8_t command, int number) const;
    void begin(std::span<const std::uint8_t> frame, AirAnswer& answer);
    void finish(std::span<const std::uint8_t> data, AirAnswer& answer);
    void read(int number, AirAnswer& answer);
    bool mergeTrailer(int number, std::span<std::uint8_t> data) const;
    void load(std::uint8_t command, std::span<const std::uint8_t> operand);
    void transfer(int number, AirAnswer& answer);
    void store(int number, std::span<const std::uint8_t> data, AirAnswer& answer);
    void nak(AirAnswer& answer);

    static constexpr std::size_t kBlockBytes = 16;

    TagMemory mMemory;
    std::optional<Session> mSession;
    std::optional<TransferBuffer> mTransfer;
    std::uint8_t mPendingCommand = 0;  ///< First step of a command of two steps, 0 for none.
    std::uint8_t mPendingBlock = 0;
};
