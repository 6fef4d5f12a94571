#pragma once

#include "VirtualTag.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class FaultPlan;
class WritePower;

/// The antenna of a reader and the tags that lie on it, in order. Every operation may be called from any thread. The
/// one lock of the field covers the tags and the reader as well: hold `lock()` to look at several things, or at a tag's
/// memory, while a reader is at work.
class VirtualField {
  public:
    using Lock = std::unique_lock<std::recursive_mutex>;

    /// Hears of tags that come or go. Called under the lock.
    class Listener {
      public:
        virtual ~Listener() = default;
        virtual void onTagsChanged() = 0;
    };

    Lock lock() const { return Lock(mMutex); }

    // ---- what a person does with tags ----

    /// Lays a tag into the field, under a name that serves to take it away again.
    /// @return its name, which is `name` or, if that is empty, "tag1", "tag2" and so on; empty if the name is taken.
    std::string place(std::shared_ptr<VirtualTag> tag, std::string name = {});
    /// @return false if there is no such tag.
    bool remove(std::string_view name);
    void clear();
    /// Holds a tag away from the antenna, or back over it, without forgetting it. @return false for an unknown name.
    bool setPresent(std::string_view name, bool present);

    struct Entry {
        std::string name;
        std::shared_ptr<VirtualTag> tag;
        bool present = true;
    };
    std::vector<Entry> list() const;
    /// Null for an unknown name.
    std::shared_ptr<VirtualTag> find(std::string_view name) const;

    // ---- what a reader does with the field; call under the lock ----

    bool isOn() const { return mOn; }
    void setOn(bool on);
    bool isEmpty() const { return mPresentCount == 0; }

    /// Sends a request to all tags. @return the ATQA of all that answered, laid over each other; none if all are
    /// silent.
    std::optional<std::uint16_t> request(VirtualTag::Request request);

    /// Answers of several tags laid over each other.
    struct Collision {
        CascadePart bits{};       ///< Valid up to the first bit in which two tags differ.
        int firstCollision = -1;  ///< Number of that bit (0 to 39), -1 if there is none.
    };
    /// Bitwise anticollision, see VirtualTag. @return none if all tags are silent.
    std::optional<Collision> anticollision(int level, const CascadePart& known, int knownBits);
    /// @return SAK of the tag that was selected, none if no tag has this part.
    std::optional<std::uint8_t> select(int level, const CascadePart& part);
    void halt();
    /// A frame that all selected tags hear: one of them, or several cards of ISO/IEC 14443-4, which tell by their
    /// numbers whose it is. The first answer counts.
    void exchange(std::span<const std::uint8_t> frame, AirAnswer& answer);
    bool authenticate(const Authentication& authentication);
    bool hasSelected() const;
    /// The selected tag with this UID, null if there is none.
    VirtualTag* selected(std::span<const std::uint8_t> uid);

    // ---- for the reader's own wiring ----

    void setListener(Listener* listener);
    /// Who decides on the power of tags that write. Not owned; null for never losing it.
    void setPower(WritePower* power);
    /// Faults of the blocks that smart cards send. Not owned; null for none.
    void setFaults(FaultPlan* faults);

    /// Faults of the hand that holds the tags; all act on the first tag that is present.
    void takeFirstAway();
    void bringBack();
    void blinkFirst();
    /// Puts the tag `name`, or a twin if the name is empty, in the place of the first one.
    void swapFirst(std::string_view name);

  private:
    Entry* entry(std::string_view name);
    Entry* firstPresent();
    void show(Entry& entry, bool present);
    void changed();

    mutable std::recursive_mutex mMutex;
    std::vector<Entry> mEntries;
    std::size_t mPresentCount = 0;
    unsigned mNameCount = 0;
    bool mOn = false;
    Listener* mListener = nullptr;
    WritePower* mPower = nullptr;
    FaultPlan* mFaults = nullptr;
};
