#pragma once

#include "SelectedTag.h"
#include "TagDirectory.h"

#include <cstdint>

/// Value blocks of a selected tag: signed numbers that the tag itself counts up and down.
class Values {
  public:
    explicit Values(SelectedTag& tag) : mTag(tag) {}

    /// `value` is set as soon as the block was read, even with 3129.
    int get(const BlockAddress& address, const KeyUse& key, int& value);
    int set(const BlockAddress& address, const KeyUse& key, int value);
    /// `transferBlock` receives the result; -1 for the block itself.
    int adjust(const BlockAddress& address, const KeyUse& key, ValueBlockOper operation, unsigned amount,
               int transferBlock);

  private:
    int checkHoldsValue(const KeyUse& key, int sector, int blockInSector);
    std::uint8_t addressOf(int sector, int blockInSector) const;
    int locateTransfer(const BlockAddress& address, int transferBlock, std::uint8_t& transfer);

    SelectedTag& mTag;
};
