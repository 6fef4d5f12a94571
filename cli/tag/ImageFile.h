#pragma once

#include "qvl/Image.h"

#include <string>
#include <vector>

/// An image of a tag in a file, and beside it, for one with gaps, its companion "FILE.json", which names the blocks
/// that are missing.
class ImageFile {
  public:
    explicit ImageFile(std::string name) : mName(std::move(name)) {}

    /// The blocks that the companion names; none without one. @throws std::invalid_argument for one that is not sound.
    std::vector<int> missing() const;
    /// The file is there, of the same size, and lacks less than `image` does.
    bool isBetterThan(const qvl::TagImage& image) const;
    /// Writes both; a companion that is not needed goes away. @return what went wrong, empty for nothing.
    std::string write(const qvl::TagImage& image) const;

  private:
    std::string companion() const { return mName + ".json"; }

    std::string mName;
};
