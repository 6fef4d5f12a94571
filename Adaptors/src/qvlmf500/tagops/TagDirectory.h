#pragma once

#include "DirectoryImage.h"
#include "SelectedTag.h"

#include <cstdint>

/// The application directory of a selected tag: read, written, and asked where the data of an application lie. Each
/// lookup reads what it needs. Statuses are those of ServiceStatus.h.
class TagDirectory {
  public:
    /// `key` opens sector 0.
    TagDirectory(SelectedTag& tag, const KeyUse& key) : mTag(tag), mKey(key) {}

    /// The image of a tag that says that it has a directory; `login` between that and the reading. 3109, 3130.
    int readKnown(Login login, DirectoryImage& image);
    /// The image, whatever the tag says of itself; 3109.
    int read(Login login, DirectoryImage& image);
    /// 3133 or what the authentication gave.
    int write(const DirectoryImage& image, const DirtyBlocks& dirty, Login login);

    /// The sectors of an application, ascending; 3109, 3112.
    int findSectors(std::uint16_t appId, SectorList& list);
    /// Place of a data block of an application, which counts from 0; 3109, 3112.
    int locateBlock(std::uint16_t appId, int blockIndex, int& sector, int& blockInSector);
    /// Where in the list of sectors a run of blocks begins; one past the end is the beginning. 3109, 3112, 3113.
    int locateRange(std::uint16_t appId, int firstIndex, SectorList& list, int& firstListIndex, int& offset);

  private:
    int readKind(int& kind);

    SelectedTag& mTag;
    KeyUse mKey;
};

/// One data block as a host names it: absolute, or an index through the data of an application.
struct BlockAddress {
    TagAppType appType;
    short appId;
    int block;
    KeyUse madKey;
    bool mayBeTrailer = false;
};

/// Turns it into sector and block in sector; 3109, 3112, 3113, 3119, 3131.
int locateBlock(SelectedTag& tag, const BlockAddress& address, int& sector, int& blockInSector);

/// The sectors that an operation on whole sectors means: those of an application, or `sectorCount` from number `appId`
/// on. 3109, 3112.
int listSectors(SelectedTag& tag, TagAppType appType, short appId, const KeyUse& madKey, int sectorCount,
                SectorList& list);
