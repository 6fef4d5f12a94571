#pragma once

#include "KeyText.h"
#include "Options.h"
#include "Session.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

/// Which tag a command works on, how its memory is addressed, and with which keys.
struct TagAccess {
    qvl::Uid uid;                      ///< Of the wanted tag; empty for the one that is found.
    std::optional<std::uint16_t> app;  ///< Blocks and sectors are those of this application.
    qvl::Login login;
    qvl::Login directory{qvl::Key::directory()};
};

inline const std::map<std::string, qvl::KeyType> kKeyTypes{{"a", qvl::KeyType::a}, {"b", qvl::KeyType::b}};

// Options, which complain about what cannot be while the line is parsed.

/// --uid
void addUidOption(Options& options, TagAccess& access);
/// --key and --key-type
void addKeyOptions(Options& options, TagAccess& access);
/// --key-type alone; `fallback` is the type that it says is the default.
Option addKeyTypeOption(Options& options, qvl::KeyType& type, const char* fallback);
/// --mad-key and --mad-key-type
void addMadKeyOptions(Options& options, TagAccess& access);
/// --app, and the keys of the directory.
Option addAppOption(Options& options, TagAccess& access);
/// A key under a name of its own.
Option addKeyOption(Options& options, const char* name, std::optional<qvl::Key>& key, const char* description);
/// ID in its place.
void addAppId(Options& options, std::optional<std::uint16_t>& id);

/// Waits for the tag with the UID that is wanted, else for one that carries the application, else for any.
/// @throws qvl::Error
qvl::Tag findTag(Session& session, const TagAccess& access);
/// The memory of the tag, or of the application on it, that a command addresses.
Outcome onMemory(Session& session, const TagAccess& access, const std::function<Outcome(const qvl::Memory&)>& work);

/// Four digits.
std::string appText(std::uint16_t id);
