#pragma once

#include "FaultPlan.h"
#include "ReaderOptions.h"
#include "TagMemory.h"
#include "TamaFirmware.h"
#include "TamaLink.h"
#include "VirtualField.h"

#include <array>
#include <cstdint>
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

/// A reader with its field, its link and its faults. Any thread may call any operation.
class VirtualTamaReader : private VirtualField::Listener, private WritePower {
  public:
    /// A reader on a field that may be shared with whoever moves the tags; without one it makes its own.
    explicit VirtualTamaReader(ReaderOptions options = {}, std::shared_ptr<VirtualField> field = {});
    ~VirtualTamaReader() override;
    VirtualTamaReader(const VirtualTamaReader&) = delete;
    VirtualTamaReader& operator=(const VirtualTamaReader&) = delete;

    VirtualField& field() { return *mField; }
    /// Options may be changed between commands, under the field's lock.
    ReaderOptions& options() { return mOptions; }

    /// One sink at a time; null disconnects. What an earlier host left unfinished is forgotten.
    void connect(ReaderSink* sink);
    void watch(ReaderWatcher& watcher);
    void unwatch(ReaderWatcher& watcher);
    /// Bytes from the host, in any portions.
    void receive(std::span<const std::uint8_t> bytes);

    /// Adds a rule to the plan, or a text of several lines; as text: @return empty or what is wrong.
    void addFault(FaultRule rule);
    std::string addFault(std::string_view rule);
    std::string addFaults(std::string_view text);
    void clearFaults();

    /// Unplugs the reader: link key and settings are lost, the field goes off. @see ReaderWatcher
    void vanish();
    void comeBack();
    bool isPresent() const;

    /// LED byte of the last command 26; 0 at first.
    std::uint8_t ledByte() const;
    bool isFieldOn() const;
    bool isLinkKeyed() const;
    /// How often a command with this code arrived in a sound frame since the start.
    std::uint32_t commandCount(std::uint8_t code) const;

  private:
    void onTagsChanged() override;
    std::optional<std::size_t> bytesUntilPowerLoss() override;

    using Bytes = std::span<const std::uint8_t>;
    struct Held {
        std::array<std::uint8_t, kMaxReplyFrame> bytes;
        std::size_t length = 0;
    };

    void onHostFrame(HostFrame& frame);
    void onCommand(HostFrame& frame);
    void handle(Bytes command, const FaultRule* fault);
    bool applyBefore(const FaultRule& fault);
    void sendAck(FaultEffect effect);
    void execute(Bytes command, const FaultRule* fault);
    void answer(const FaultRule* fault);
    void buildReply();
    void deliver(const FaultRule& fault, Bytes frame);
    void sendExtended(std::size_t total);
    void send(Bytes frame, std::uint32_t delayMs = 0);
    void hold(Bytes frame);

    std::shared_ptr<VirtualField> mField;
    ReaderOptions mOptions;
    TamaLink mLink;
    TamaFirmware mFirmware;
    FaultPlan mFaults;
    ReaderSink* mSink = nullptr;
    std::vector<ReaderWatcher*> mWatchers;
    bool mPresent = true;
    bool mBabbling = false;
    std::array<std::uint32_t, 256> mCounts{};
    TamaReply mReply;
    std::uint8_t mReplyCode = 0;
    std::array<std::uint8_t, kMaxReplyFrame> mLastFrame{};  ///< For a NACK of the host.
    std::size_t mLastFrameLength = 0;
    std::array<Held, 2> mHeld;
    std::size_t mHeldCount = 0;
    std::string mFallen;  ///< Tag that lost its power for good in this command.
};
