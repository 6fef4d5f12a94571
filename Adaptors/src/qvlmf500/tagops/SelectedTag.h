#pragma once

#include "KeyUse.h"
#include "Qvl14443bfl.h"
#include "TagUID.h"
#include "TagWait.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

/// Blocks of one sector; `first` counts from the start of the sector.
struct SectorBlocks {
    int sector;
    int first;
    int count;
};

/// Whether a move of blocks authenticates first, or counts on the sector being open. A retry authenticates anyway.
enum class Login { anew, asIs };

/// One tag that is held for one operation: selected by its UID, woken again when it drops out, its blocks read and
/// written with three tries each. Statuses are those of ServiceStatus.h. Under the reader lock.
class SelectedTag {
  public:
    /// `tag` is the host's record, whose type each selection refreshes. All three outlive this object.
    SelectedTag(std::shared_ptr<Qvl14443bfl> driver, TagUID& tag, WaitBudget& budget)
        : mDriver(std::move(driver)), mTag(tag), mBudget(budget) {}
    /// Sends a tag to sleep that the operation has left selected.
    ~SelectedTag();
    SelectedTag(const SelectedTag&) = delete;
    SelectedTag& operator=(const SelectedTag&) = delete;

    std::uint32_t type() const { return mTag.getTagType(); }
    /// Bytes of a block: 16, or 4 of a page.
    std::size_t blockSize() const;

    /// Selects the tag for the first time, waiting for it. From then on its type is held, see holdType.
    int activate();
    /// Selects the tag again after something has failed, waiting for it.
    int wake();
    /// From here on a tag whose blocks lie otherwise is not this one, whatever UID it shows: the geometry that the
    /// operation started with holds to its end. The type itself may have come from the host; a tag corrects it.
    void holdType() { mHeldType = type(); }
    /// Says how the operation ends: with the tag selected or not. Without this a success leaves it selected.
    void leaveSelected(bool isSelected) { mLeaveSelected = isSelected; }
    /// The way out of the operation. @return `status`
    int end(int status);

    /// Opens the sector of this block, whose address is absolute. 3102 after three refusals.
    int authenticate(int blockAddress, const KeyUse& key);
    /// Reads into `out`, which holds the blocks whole. Without `statuses` the first block that fails ends it, 3105;
    /// with one entry for each block, the others are read all the same, and a failed one is zero.
    int read(const SectorBlocks& blocks, const KeyUse& key, Login login, std::uint8_t* out, int* statuses = nullptr);
    /// Writes `data`, padded with zeros to whole blocks. The same rules hold, with 3133.
    int write(const SectorBlocks& blocks, const KeyUse& key, Login login, std::span<const std::uint8_t> data,
              int* statuses = nullptr);
    int readTrailer(int sector, const KeyUse& key, Trailer& trailer);
    int writeTrailer(int sector, const KeyUse& key, Login login, const Trailer& trailer);
    /// Increment or decrement by the tag itself, and transfer of the result; once and never again, since nobody knows
    /// whether a lost answer belongs to a change that took place. 3120.
    int changeValue(std::uint8_t command, std::uint8_t address, std::int32_t amount, std::uint8_t transfer);

  private:
    struct Move;

    int waitUntilSelected(std::uint8_t requestCode);
    bool select(std::uint8_t requestCode);
    template <typename Transfer, typename Failed>
    int move(const Move& what, const KeyUse& key, int* statuses, Transfer transfer, Failed failed);
    template <typename Transfer>
    short tryThreeTimes(int base, const KeyUse& key, Transfer transfer);

    std::shared_ptr<Qvl14443bfl> mDriver;
    TagUID& mTag;
    WaitBudget& mBudget;
    std::optional<std::uint32_t> mHeldType;
    std::optional<bool> mLeaveSelected;
    bool mNeedsHalt = false;
};
