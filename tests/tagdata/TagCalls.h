#pragma once

#include "SweptOperations.h"

/// A tag whose sectors 5, 7 and 8 are the application's; 1, 2, 4 and 9 belong to others, 3 is defect.
class TagCalls : public ::testing::Test, protected TagWorkplace {
  protected:
    TagCalls() { setImage(layout); }

    const Bytes layout = directoryTag(
        {{1, 0x2211}, {2, 0x4433}, {3, 1}, {4, 0x2211}, {5, kOwnApp}, {7, kOwnApp}, {8, kOwnApp}, {9, 0x4433}});
    std::uint8_t buffer[64] = {};
};
