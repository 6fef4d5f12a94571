#pragma once

#include "AccessText.h"
#include "Key.h"
#include "Options.h"
#include "Session.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

/// Keys that may open the sectors of a tag.
class KeyRing {
  public:
    /// --key, --key-b and --keys.
    void addOptions(Options& options);

    /// Those worth a try as key A or B of a sector, the likeliest first. With nothing given, the published keys.
    std::vector<Key> candidates(int sector, AuthKeyMode mode) const;

  private:
    void readFile(const std::string& name);

    std::optional<Key> mKeyA, mKeyB;
    std::vector<Key> mBoth;             // from a list
    std::vector<Key> mImageA, mImageB;  // from the trailers of an image, a sector each
};

/// What is known of a sector's trailer: keys that have opened it, and its conditions.
struct OpenSector {
    std::optional<Key> keyA, keyB;
    std::array<DataAccControl, 4> conditions{};

    bool isOpen() const { return keyA || keyB; }
    const std::optional<Key>& key(AuthKeyMode mode) const { return mode == AuthKeyA ? keyA : keyB; }
    const TrailerRule& trailer() const { return trailerRule(conditions[3]); }
    /// A key that `who` names and that is there; null for none.
    const Key* keyFor(Who who, AuthKeyMode& mode) const;
};

/// Tries the keys. @return success also where none fits, `sector` is not open then; else why the tag cannot be asked.
int openSector(Session& session, const TagUID& tag, int number, const KeyRing& keys, OpenSector& sector);
