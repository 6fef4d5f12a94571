#pragma once

#include "CipherCommandObject.h"
#include "LogService.h"
#include "Mf500bfl.h"

#include <cstddef>

// What the two halves of the driver share: its operations, and the link that carries them.

/// What is fixed of a command. The failures are logged with one status each.
struct Mf500bfl::Command {
    const char* name;
    std::uint8_t code;
    const char* replyFailure = nullptr;
    int failedLevel = kLogFailure;
    bool isScrambled = true;
    bool tellsNoMore = false;  ///< Whatever the reader's status, it becomes 1.
    bool hasReplyData = true;  ///< Besides a key.
    bool readsReply = true;
};

/// A parameter: number of 1, 2 or 4 bytes, or a run of bytes.
struct Mf500bfl::Param {
    Param(std::uint8_t value) : number(value), size(1) {}
    Param(std::uint16_t value) : number(value), size(2) {}
    Param(std::uint32_t value) : number(value), size(4) {}
    Param(const std::uint8_t* data, std::uint32_t length) : isRun(true), bytes(data), size(length) {}

    bool isMissing() const { return isRun && bytes == nullptr && size > 0; }
    short addTo(CommandObject& command) const {
        if (isRun) return size > 0 ? command.AddParam(bytes, size) : short{kBflOk};
        if (size == 1) return command.AddParam(static_cast<std::uint8_t>(number));
        return size == 2 ? command.AddParam(static_cast<std::uint16_t>(number)) : command.AddParam(number);
    }

    bool isRun = false;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t number = 0;
    std::uint32_t size;
};

/// A value of the reply and where it goes.
struct Mf500bfl::Field {
    std::uint8_t* out;
    std::uint32_t length;
};

/// What is known of the link. Copies of a driver share it.
struct Mf500bfl::Link {
    std::unique_ptr<CipherCommandObject> command{new CipherCommandObject};  ///< Reused for every command.
    LinkCipher before;             ///< Key and stream as they were before the last command.
    std::uint8_t lastCode = 0;     ///< Of the last command.
    bool isLastScrambled = false;  ///< It travels so, and its reply.
    bool isReplyDue = false;       ///< It failed, and its reply may still come.
    bool isOutOfStep = false;      ///< The reader has a key that did not arrive.
    bool isKeyReadable = true;     ///< In the reply that is being read.
    bool isTagAwake = false;       ///< This driver left one so; it may have gone since.
};
