#pragma once

#include "Key.h"
#include "Options.h"
#include "Session.h"

#include <functional>
#include <optional>
#include <vector>

/// Which tag a command works on, how its memory is addressed, and with which keys.
struct TagAccess {
    std::vector<std::uint8_t> uid;     ///< Of the wanted tag; none for the one that is found.
    std::optional<std::uint16_t> app;  ///< Blocks and sectors are those of this application.
    Key key = Key::factory();
    AuthKeyMode keyMode = AuthKeyA;
    std::optional<Key> madKey;  ///< For the directory; none for its public key A.
    AuthKeyMode madKeyMode = AuthKeyA;

    TagAppType appType() const { return app ? TagAppMad1 : TagAppNone; }
    short appId() const { return static_cast<short>(app.value_or(0)); }
    /// What operations on sectors take in the place of the application: it, or the first sector.
    short appIdOr(int sector) const { return app ? appId() : static_cast<short>(sector); }
    const std::uint8_t* madKeyBytes() const { return bytesOrNull(madKey); }
};

// Options, which complain about what cannot be while the line is parsed.

/// --uid
void addUidOption(Options& options, TagAccess& access);
/// --key and --key-type
void addKeyOptions(Options& options, TagAccess& access);
/// --key-type alone; `fallback` is the type that it says is the default.
Option addKeyTypeOption(Options& options, AuthKeyMode& mode, const char* fallback);
/// --mad-key and --mad-key-type
void addMadKeyOptions(Options& options, TagAccess& access);
/// --app, and the keys of the directory.
Option addAppOption(Options& options, TagAccess& access);
/// A key under a name of its own.
Option addKeyOption(Options& options, const char* name, std::optional<Key>& key, const char* description);
/// ID in its place.
void addAppId(Options& options, std::optional<std::uint16_t>& id);

/// Waits for a tag and says what is wrong, or runs `work` on it: the one with the UID that is wanted, else one that
/// carries the application, else the first that is found. The tag sleeps; operations wake it.
Outcome onTag(Session& session, const TagAccess& access, const std::function<Outcome(const TagUID&)>& work);

std::string uidText(const TagUID& tag);
const char* typeText(const TagUID& tag);
/// Four digits.
std::string appText(std::uint16_t id);
