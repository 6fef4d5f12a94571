#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

class FaultPlan;
class TagMemory;

/// Behaviour in which real chips differ from each other. The defaults are those of the common chip.
struct TagQuirks {
    /// Newer Classic chips refuse the authentication itself with a key B that can be read; older ones let it pass and
    /// refuse every access after it.
    bool readableKeyBRefused = false;
    /// A trailer of which only some fields may be written: the default keeps the others, some chips refuse it whole.
    bool partialTrailerWriteRefused = false;
    /// The cipher of Classic chips with a long UID takes the last four bytes of it on some, the first four on others.
    bool lastUidBytesAuthenticate = false;
    /// A smart card takes its number (CID) from RATS and ignores blocks for another one. Without this it learns the
    /// number from its first block, which suits readers that do RATS by themselves, with number 0.
    bool strictCid = false;
    /// Some readers send a CID to cards whose ATS declares none; strict cards ignore such blocks, lenient ones answer.
    bool undeclaredCidTaken = false;
    /// Phones in card mode make up a UID (08 and three random bytes) whenever they enter a field.
    bool freshUid = false;
};

/// What comes back over the air: nothing, a nibble (ACK or NAK) or bytes. The bytes carry no CRC: a frame that arrives
/// is a sound frame, and the two CRC bytes count in neither direction.
class AirAnswer {
  public:
    enum class Kind { silence, nibble, bytes };
    static constexpr std::size_t kCapacity = 512;

    Kind kind() const { return mKind; }
    std::uint8_t nibble() const { return mNibble; }
    std::span<const std::uint8_t> bytes() const { return {mBytes.data(), mLength}; }

    void setSilence() { mKind = Kind::silence, mLength = 0; }
    void setNibble(std::uint8_t nibble) { mKind = Kind::nibble, mNibble = nibble, mLength = 0; }
    /// Bytes above the capacity are cut.
    void setBytes(std::span<const std::uint8_t> bytes);

  private:
    Kind mKind = Kind::silence;
    std::uint8_t mNibble = 0;
    std::size_t mLength = 0;
    std::array<std::uint8_t, kCapacity> mBytes;
};

constexpr std::uint8_t kAirAck = 0x0A;  ///< The only nibble that means yes.

/// An authentication of a Classic chip as the reader's cipher unit sees it.
struct Authentication {
    bool withKeyB = false;
    std::uint8_t block = 0;
    std::array<std::uint8_t, 6> key{};
    std::array<std::uint8_t, 4> uid{};  ///< The four UID bytes that go into the cipher.
};

/// UID part of one cascade level with its check byte, as it travels in anticollision: first byte first, low bit first.
using CascadePart = std::array<std::uint8_t, 5>;

/// One tag as the air sees it, ISO/IEC 14443-3 type A. The base class keeps the state; kinds of tags add what they do
/// with a frame when they are selected. One thread at a time: VirtualField's lock covers all tags in it.
///
/// States: off (no field), idle, ready (answered a request), active (selected), halted. A frame out of place and a
/// refused command lead back to idle, or to halted if the tag had been woken from there.
class VirtualTag {
  public:
    enum class State { off, idle, ready, active, halted };
    enum class Request : std::uint8_t { reqa = 0x26, wupa = 0x52 };

    virtual ~VirtualTag();
    VirtualTag(const VirtualTag&) = delete;
    VirtualTag& operator=(const VirtualTag&) = delete;

    /// What it is, in one or two words, for people.
    virtual const char* kind() const = 0;
    std::span<const std::uint8_t> uid() const { return {mUid.data(), mUidLength}; }
    std::uint16_t atqa() const { return mAtqa; }
    std::uint8_t sak() const { return mSak; }
    /// Replaces what the kind derives, for makers that differ.
    void setAtqa(std::uint16_t atqa) { mAtqa = atqa; }
    void setSak(std::uint8_t sak) { mSak = sak; }
    State state() const { return mState; }
    TagQuirks& quirks() { return mQuirks; }
    const TagQuirks& quirks() const { return mQuirks; }
    /// What the tag remembers; null for tags without a memory of blocks.
    virtual TagMemory* memory() { return nullptr; }
    /// Where the faults of the blocks that it sends come from; null for none. Not owned. Other kinds take none.
    virtual void setFaults(FaultPlan*) {}
    /// Another tag of the same kind and content whose last UID byte is inverted.
    virtual std::shared_ptr<VirtualTag> twin() const = 0;

    void fieldOn();
    /// The tag lost its power: everything but its memory is gone.
    void fieldOff();

    /// @return true if the tag answers; `atqa` is then its answer, the low byte of which goes first on the air.
    bool request(Request request, std::uint16_t& atqa);
    /// Anticollision on `level` (0, 1, 2) with the first `knownBits` bits (0 to 39) of `known` given.
    /// @return true if the tag's bits begin so; `part` is then its whole part of that level.
    bool anticollision(int level, const CascadePart& known, int knownBits, CascadePart& part);
    /// Selects on `level` by a full part. @return true if it is this tag's; `sak` then says with bit 0x04 that a
    /// further level follows. Any other tag that was ready falls back.
    bool select(int level, const CascadePart& part, std::uint8_t& sak);
    /// HLTA. Success is silence.
    void halt();
    /// One frame to the selected tag; a tag that is not selected is silent.
    void exchange(std::span<const std::uint8_t> frame, AirAnswer& answer);
    /// Authentication of a Classic chip; other kinds fall back as after an unknown command.
    bool authenticate(const Authentication& authentication);

  protected:
    /// `uid` has 4, 7 or 10 bytes.
    VirtualTag(std::span<const std::uint8_t> uid, std::uint16_t atqa, std::uint8_t sak);

    void setUid(std::span<const std::uint8_t> uid);
    std::vector<std::uint8_t> twinUid() const;
    /// A frame for the selected tag. The answer is silence at entry.
    virtual void onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) = 0;
    virtual bool onAuthenticate(const Authentication&) { return false; }
    /// True while a selected tag hears nothing but blocks of ISO/IEC 14443-4.
    virtual bool isInProtocol() const { return false; }
    /// The tag entered or left the selected state or the field: whatever lives only as long as that is void.
    virtual void onReset() {}
    virtual void onFieldOn() {}

    /// Leaves the selected state, without an answer or after a NAK.
    void drop();
    void refuse(AirAnswer& answer, std::uint8_t nak);
    /// HLTA arrived, or the deselection of the tag's own protocol.
    void enterHalt();
    /// The power failed for a moment; the tag starts anew.
    void losePower();

  private:
    CascadePart cascadePart(int level) const;
    int cascadeLevels() const;
    void enter(State state);

    std::array<std::uint8_t, 10> mUid{};
    std::size_t mUidLength = 0;
    std::uint16_t mAtqa;
    std::uint8_t mSak;
    TagQuirks mQuirks;
    State mState = State::off;
    bool mFromHalt = false;
    int mLevel = 0;
};
