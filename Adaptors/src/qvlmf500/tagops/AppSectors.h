#pragma once

#include "DirectoryImage.h"
#include "OpRecords.h"
#include "SelectedTag.h"

#include <cstdint>

/// What initApp and addAppSector ask for. `appId` is the application, or without a directory the first sector. Keys
/// are 6 bytes of the caller's.
struct SectorsToAdd {
    int appId;
    const std::uint8_t* madKey;     ///< Key B of sector 0.
    const std::uint8_t* sectorKey;  ///< Key B of the sectors; null for the default of the kind of tag.
    int count;
    const std::uint8_t* newKeyA;
    const std::uint8_t* newKeyB;
    DataAccControl access;
};

/// What removeAppSector and resetApp ask for.
struct SectorsToRemove {
    int appId;
    const std::uint8_t* madKey;
    int start;  ///< Position in the application's list of sectors.
    int count;
    KeyUse key;  ///< Opens the trailers.
    const std::uint8_t* newKeyA;
    const std::uint8_t* newKeyB;
    int* statuses;  ///< One entry a sector, or null.
};

/// Gives sectors of a tag with a directory to an application and takes them back. The directory is two blocks that
/// cannot be written as one, so the order of writes is what keeps a tag safe: on adding, the directory names the new
/// owner before a sector is touched; on removing, a sector is reset before the directory gives it up. At no moment is
/// a sector that holds an application's data listed as free.
class AppSectors {
  public:
    explicit AppSectors(SelectedTag& tag) : mTag(tag) {}

    /// With `isNew` the application must not exist yet, without it must. `done` counts the sectors that were finished.
    int add(const SectorsToAdd& wanted, bool isNew, int& done, OpRecords& records);
    int remove(const SectorsToRemove& wanted);

  private:
    struct Claim;

    void prepare(const SectorsToAdd& wanted, Claim& claim, int& done, OpRecords& records);
    int prepareSector(const SectorsToAdd& wanted, int sector);
    int resetSector(const SectorsToRemove& wanted, int sector);
    int resetChosen(const SectorsToRemove& wanted, const SectorList& sectors, DirectoryImage& image, int& last);

    SelectedTag& mTag;
};

/// The same for a run of sectors by number, on a tag without a directory.
class PlainSectors {
  public:
    explicit PlainSectors(SelectedTag& tag) : mTag(tag) {}

    int add(const SectorsToAdd& wanted, int& done, OpRecords& records);
    int remove(const SectorsToRemove& wanted);

  private:
    bool fits(int first, int count) const;
    int addSector(const SectorsToAdd& wanted, int sector, bool isLast);
    int clearData(int sector, const KeyUse& key);

    SelectedTag& mTag;
};
