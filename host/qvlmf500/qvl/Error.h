#pragma once

#include "BflStatus.h"
#include "QvlTcl.h"
#include "ServiceStatus.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qvl {

/// Why an operation failed, as far as a program acts on it.
enum class Reason : std::uint8_t {
    noTag,         ///< No tag, or not the one that was named, came into the field.
    lost,          ///< The tag or card left the field, or the link to it broke, while it was being worked on.
    wrongKey,      ///< The tag did not accept the key.
    notPermitted,  ///< The access conditions of the tag, or its type, do not allow this.
    content,     ///< The tag does not hold what the operation needs: no directory, no such application, no sound value.
    noReader,    ///< No reader is there, or the reader object is closed.
    readerBusy,  ///< Another program works with the reader.
    readerLost,  ///< The reader was there and does not answer any longer.
    notSupported,  ///< This reader does not offer the operation.
    cancelled,     ///< The host ended the wait.
    timedOut,      ///< The time limit was over.
    badArgument,   ///< The arguments cannot be: size, range or value.
    failed,        ///< None of these: no memory, or a fault in the library.
};

/// The reason as one or two words, as in messages and JSON: "no tag", "wrong key".
constexpr const char* name(Reason reason) {
    switch (reason) {
    case Reason::noTag:
        return "no tag";
    case Reason::lost:
        return "lost";
    case Reason::wrongKey:
        return "wrong key";
    case Reason::notPermitted:
        return "not permitted";
    case Reason::content:
        return "unsuitable content";
    case Reason::noReader:
        return "no reader";
    case Reason::readerBusy:
        return "reader busy";
    case Reason::readerLost:
        return "reader lost";
    case Reason::notSupported:
        return "not supported";
    case Reason::cancelled:
        return "cancelled";
    case Reason::timedOut:
        return "timed out";
    case Reason::badArgument:
        return "bad argument";
    case Reason::failed:
        break;
    }
    return "failed";
}

/// What a status of the library means to a host.
struct StatusInfo {
    int status;        ///< ServiceStatus, or a status of the card layer or the driver.
    const char* name;  ///< A few words that scripts may compare, such as "key refused".
    Reason reason;
    const char* meaning;  ///< What happened, without a full stop.
};

namespace detail {

inline constexpr int kNoFreeCid = -45;

inline constexpr StatusInfo kStatusTable[] = {
    {kTclBadArgument, "not sent", Reason::badArgument, "the command was refused before it was sent"},
    {kNoFreeCid, "no free card number", Reason::badArgument,
     "sixteen cards are open, and there is no number for another"},
    {kTclBadAts, "no sound ATS", Reason::notPermitted, "the tag gives no sound answer to select: it is no smart card"},
    {kTclRestPending, "answer too long", Reason::notPermitted, "the answer has more than 4096 bytes"},
    {kTclDeselected, "card lost", Reason::lost, "the exchange with the card failed, and it was deselected"},
    {kTclNotDeselected, "card lost", Reason::lost, "the exchange with the card failed, and it could not be deselected"},
    {kBflNoTag, "no tag", Reason::noTag, "no tag answered, or one that is no smart card"},
    {kBflErrorFrame, "refused by the reader", Reason::badArgument,
     "the reader does not know the command or its parameters"},
    {kBflDeviceTimedOut, "reader silent", Reason::readerLost, "the reader did not answer in time"},
    {kNoApplicationId, "no application id", Reason::badArgument, "application ids run from 6 to FFFF"},
    {kStreamEnd, "short answer", Reason::failed, "an answer ended before all values were read"},
    {kStreamFull, "out of memory", Reason::failed, "there is not enough memory"},
    {kWrongValueType, "wrong value type", Reason::failed, "an answer holds a value of another type"},
    {kReaderFailed, "reader failed", Reason::readerLost, "the reader refused the operation or did not answer"},
    {kKeyRefused, "key refused", Reason::wrongKey, "the tag did not accept the key"},
    {kNoTag, "no tag", Reason::noTag, "no tag answered, or it could not be selected"},
    {kBlockNotRead, "block not read", Reason::notPermitted, "a block could not be read"},
    {kAlreadySuspended, "suspended already", Reason::failed, "polling is suspended already"},
    {kNotSuspended, "not suspended", Reason::failed, "polling is not suspended"},
    {kTagWithoutUid, "tag without UID", Reason::badArgument, "the given tag holds no UID"},
    {kDirectoryNotRead, "directory not read", Reason::content, "the directory of the tag could not be read"},
    {kTooFew, "too few", Reason::content, "there are too few sectors or blocks"},
    {kDirectoryNotWritten, "directory not written", Reason::wrongKey, "the directory of the tag could not be written"},
    {kApplicationMissing, "application missing", Reason::content, "the application is not on the tag"},
    {kOutOfRange, "out of range", Reason::badArgument, "a block, sector or index is outside the tag or application"},
    {kBlockKindRefused, "kind refused", Reason::badArgument, "this kind of block cannot be set"},
    {kZeroValue, "no value", Reason::badArgument, "a block that can only be decremented cannot start with 0"},
    {kNoValueBlock, "no value block", Reason::content, "the block is no value block, or would not become one"},
    {kNoDataCondition, "no data block", Reason::badArgument, "this is not a condition of data blocks"},
    {kBlockNotOpened, "block not opened", Reason::wrongKey, "the trailer could not be written to open the block"},
    {kNotAllowedHere, "not allowed here", Reason::notPermitted,
     "the operation does not suit this type of tag or way of addressing"},
    {kValueFailed, "value failed", Reason::notPermitted,
     "a value operation failed, and it is not known whether it took place"},
    {kCancelled, "cancelled", Reason::noTag, "no tag answered, and the operation did not wait"},
    {kWaitOver, "wait over", Reason::timedOut, "the wait time ran out"},
    {kTypeNotWritten, "type not written", Reason::wrongKey, "the new type of the block could not be written"},
    {kTrailerNotRead, "trailer not read", Reason::wrongKey, "a sector trailer could not be read"},
    {kDataTooLong, "data too long", Reason::badArgument, "there is more data than the blocks hold"},
    {kValueNotRead, "value not read", Reason::notPermitted, "a value block could not be read"},
    {kAccessRefused, "access refused", Reason::notPermitted, "access bits are invalid or do not allow this"},
    {kApplicationExists, "application exists", Reason::content, "the application is on the tag already"},
    {kValueInconsistent, "no sound value", Reason::content, "the block is no sound value block"},
    {kNoDirectory, "no directory", Reason::content, "the tag has no directory, or none that this key opens"},
    {kReservedBlock, "reserved block", Reason::badArgument, "the block is reserved"},
    {kPartial, "partial success", Reason::failed, "only a part was done"},
    {kBlockNotWritten, "block not written", Reason::notPermitted, "a block could not be written"},
    {kRepairFailed, "repair failed", Reason::lost, "the final repair of the directory failed"},
    {kNewKeyMissing, "new key missing", Reason::badArgument, "the new key B is missing"},
    {kReaderNotReady, "no reader", Reason::noReader, "no reader is ready"},
    {kNotImplemented, "not implemented", Reason::notSupported, "this reader does not offer the operation"},
    {kNoSuchSector, "no such sector", Reason::badArgument, "the sector is outside the tag"},
    {kNoTrailers, "no trailers", Reason::notPermitted, "this type of tag has no sector trailers"},
};

}  // namespace detail

/// The row of a status. One that has none is a failure of the card or of the link to it, with that status.
inline StatusInfo statusInfo(int status) {
    const auto* row = std::ranges::find(detail::kStatusTable, status, &StatusInfo::status);
    if (row != std::end(detail::kStatusTable)) return *row;
    constexpr int kLastReaderStatus = 0xFF;
    if (status < 0) return {status, "link failed", Reason::lost, "the card or the link to it failed"};
    if (status <= kLastReaderStatus)
        return {status, "reader status", Reason::lost, "the reader reports that the card or the link to it failed"};
    return {status, "failed", Reason::failed, "the library reported a failure"};
}

/// An operation of this layer that failed. `what()` is one sentence for people, without a full stop.
class Error : public std::runtime_error {
  public:
    Error(Reason reason, int status, const std::string& text)
        : std::runtime_error(text), mReason(reason), mStatus(status) {}
    Error(Reason reason, const std::string& text) : Error(reason, 0, text) {}

    Reason reason() const { return mReason; }
    /// Of the library; 0 if it was not asked.
    int status() const { return mStatus; }

  private:
    Reason mReason;
    int mStatus;
};

}  // namespace qvl
