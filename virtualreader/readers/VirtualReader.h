#pragma once

#include "FaultPlan.h"
#include "ReaderOptions.h"
#include "TagMemory.h"
#include "VirtualField.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Where the reader's answers go. Called under the field's lock, one call a frame; must not block and must not call
/// the reader.
class ReaderSink {
  public:
    virtual ~ReaderSink() = default;
    /// `delayMs` above 0: the frame is late by that much. A sink without time of its own delivers it after the first
    /// time-out of its host.
    virtual void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) = 0;
    /// Bytes without end from here on, see `babbleByte`, until the next onFrame or onQuiet.
    virtual void onBabble() = 0;
    virtual void onQuiet() = 0;
};

/// Hears when the reader is unplugged and plugged in again. The same rules hold as for ReaderSink.
class ReaderWatcher {
  public:
    virtual ~ReaderWatcher() = default;
    virtual void onVanished() = 0;
    virtual void onReturned() = 0;
};

/// Byte number `position` of what a reader sends that has lost its mind: extended frames one after the other.
std::uint8_t babbleByte(std::uint64_t position);

/// What every model of reader has: a field, a line to its host, faults, and a plug that can be pulled. A model adds
/// what it makes of the bytes that arrive. Any thread may call any operation.
class VirtualReader : private VirtualField::Listener, private WritePower {
  public:
    ~VirtualReader() override;
    VirtualReader(const VirtualReader&) = delete;
    VirtualReader& operator=(const VirtualReader&) = delete;

    VirtualField& field() { return *mField; }
    const VirtualField& field() const { return *mField; }
    /// Options may be changed between commands, under the field's lock.
    ReaderOptions& options() { return mOptions; }

    /// One sink at a time; null disconnects. What an earlier host left unfinished is forgotten.
    void connect(ReaderSink* sink);
    void watch(ReaderWatcher& watcher);
    void unwatch(ReaderWatcher& watcher);
    /// Bytes from the host: in any portions for a model with frames, one message a call for one with messages.
    void receive(std::span<const std::uint8_t> bytes);

    /// Adds a rule to the plan, or a text of several lines; as text: @return empty or what is wrong. An effect that the
    /// model does not know is refused as text, and without an effect as a rule.
    void addFault(FaultRule rule);
    std::string addFault(std::string_view rule);
    std::string addFaults(std::string_view text);
    void clearFaults();

    /// Unplugs the reader: link key and settings are lost, the field goes off. @see ReaderWatcher
    void vanish();
    void comeBack();
    bool isPresent() const;
    /// Whether somebody has the line open.
    bool hasHost() const;

    /// LED byte that the host sent last; 0 at first, and for a model without such a command.
    virtual std::uint8_t ledByte() const { return 0; }
    bool isFieldOn() const;
    virtual bool isLinkKeyed() const = 0;
    /// How often a command with this code arrived soundly since the start.
    std::uint32_t commandCount(std::uint8_t code) const;
    using Bytes = std::span<const std::uint8_t>;
    /// Hears each command that arrives soundly, from its code on and unscrambled. Runs under the field's lock.
    void listen(std::function<void(Bytes command)> listener);

  protected:
    /// Without a field it makes its own. `suits` tells the faults of the model, see FaultPlan.
    VirtualReader(ReaderOptions options, std::shared_ptr<VirtualField> field, FaultPlan::Suits suits = nullptr);
    /// Takes its place at the field and leaves it: the last thing that a model's constructor does, and the first thing
    /// of its destructor.
    void joinField();
    void leaveField();

    // All that follow run under the field's lock.

    virtual void onBytes(Bytes bytes) = 0;
    /// A host came or went: what it left half done is void.
    virtual void onHostChanged() {}
    /// The plug was pulled.
    virtual void onPowerLost() = 0;
    void onTagsChanged() override {}

    bool isPlugged() const { return mPresent; }
    ReaderSink* sink() const { return mSink; }
    void noteCommand(Bytes command);
    /// The fault that hits this command, null for none.
    const FaultRule* faultOf(std::uint8_t code) { return mFaults.isEmpty() ? nullptr : mFaults.onCommand(code); }
    /// What a fault does to the tags before the command.
    void moveTags(const FaultRule& fault);
    /// Takes a tag away whose power a fault has cut in this command; to be called after each command.
    void dropFallenTag();

    void send(Bytes frame, std::uint32_t delayMs = 0);
    /// Keeps a frame until `sendHeld`.
    void hold(Bytes frame) { mHeld.emplace_back(frame.begin(), frame.end()); }
    void sendHeld();

  private:
    std::optional<std::size_t> bytesUntilPowerLoss() override;

    ReaderOptions mOptions;
    std::shared_ptr<VirtualField> mField;
    FaultPlan mFaults;
    ReaderSink* mSink = nullptr;
    std::vector<ReaderWatcher*> mWatchers;
    bool mPresent = true;
    std::array<std::uint32_t, 256> mCounts{};
    std::function<void(Bytes)> mListener;
    std::vector<std::vector<std::uint8_t>> mHeld;
    std::string mFallen;  ///< Tag that lost its power for good in this command.
};
