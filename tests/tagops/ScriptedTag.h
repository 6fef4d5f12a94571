#pragma once

#include "ManualClock.h"
#include "Qvl14443bfl.h"
#include "SelectedTag.h"
#include "TagGeometry.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

using Block = std::array<std::uint8_t, 16>;

/// A reader with one tag whose memory opens to every key. It notes each command as a word ("r5" reads block 5), and
/// refuses what it is told to.
class ScriptedTag : public Qvl14443bfl {
  public:
    BflType getBflType() override { return BflTypeMf500; }
    short hostCodeKey(std::uint8_t* key, std::uint8_t*) override { return key != nullptr ? kBflOk : kBflOutOfRange; }
    short piccSelectKnown(std::uint8_t code, const TagUID&, std::optional<std::uint8_t>& sak) override {
        char text[8];
        std::snprintf(text, sizeof text, "s%02X", code);
        sak = 0x08;
        return note(text);
    }
    short piccAuthKey(std::uint8_t type, std::uint8_t*, std::uint8_t*, std::uint8_t block) override {
        return note((type == 0x60 ? "A" : "B") + std::to_string(block));
    }
    short piccRead(std::uint8_t block, std::uint8_t* data) override {
        std::ranges::copy(memory[block], data);
        return note("r" + std::to_string(block));
    }
    short piccWrite(std::uint8_t block, std::uint8_t* data) override {
        const short status = note("w" + std::to_string(block));
        if (status == kBflOk) std::copy_n(data, 16, memory[block].begin());
        return status;
    }
    short piccHalt() override { return note("h"); }

    /// Refuses the next `times` commands of this name.
    void refuse(const std::string& name, int times = 1) { mRefusals[name] = times; }
    /// What was heard since the last time, a word a command.
    std::string heard() { return std::exchange(mHeard, {}); }

    std::array<Block, 256> memory{};
    std::function<void()> onCommand;

  private:
    short note(const std::string& name) {
        mHeard += (mHeard.empty() ? "" : " ") + name;
        if (onCommand) onCommand();
        int& left = mRefusals[name];
        if (left == 0) return kBflOk;
        --left;
        return 1;
    }

    std::string mHeard;
    std::map<std::string, int> mRefusals;
};

/// Waits as long as somebody is there, a tenth of a second at a time.
class ScriptedWait : public TagWait {
  public:
    std::uint32_t limitMs() const override { return limit; }
    bool mayPause() const override { return isThere; }
    int pause() override {
        if (!isThere) return kCancelled;
        platform::Clock::current().pauseMs(100);
        return kOk;
    }
    std::uint32_t limit = 1000;
    bool isThere = false;
};
