#include "StatusText.h"

#include "BflStatus.h"
#include "QvlTcl.h"
#include "ServiceStatus.h"

#include <algorithm>
#include <iterator>

namespace {

struct StatusText {
    int status;
    const char* name;
    const char* meaning;
    const char* advice;
};

constexpr const char* kHoldStill = "Lay the tag flat on the reader, hold it still, and try again.";
constexpr const char* kOtherKey = "Give the right key, or try the other one (A or B).";
constexpr const char* kSmallerRange = "Look at the size of the tag or application with \"ls\" and \"app ls\".";
constexpr const char* kFormatFirst = "\"format\" makes a directory; if its key is not the usual one, give --mad-key.";
constexpr const char* kReadRecords = "The records above say which sectors or blocks; repeat the command for those.";
constexpr const char* kReport = "This is a fault of the program: please report it with the command line.";

constexpr const char* kWakeAgain =
    "Hold the card still and begin anew; --retry wakes it and sends once more by itself.";
constexpr int kNoFreeCid = -45;

constexpr StatusText kStatusTexts[] = {
    {kTclBadArgument, "not sent", "the command was refused before it was sent: empty, or a NAD that cannot be",
     "A NAD has no bit of 88 set; without --nad it is 0."},
    {kNoFreeCid, "no free CID", "sixteen cards are activated, and there is no number for one more",
     "Deselect a card first; \"apdu\" begins with an empty table."},
    {kTclBadAts, "no sound ATS", "the tag gives no answer to select, or one that breaks off: it is no smart card",
     "\"ls\" shows what it is; for memory tags there are \"read\" and \"dump\"."},
    {kTclRestPending, "answer too long",
     "the answer has more than 4096 bytes, of which the first are lost; the rest came with the next call",
     "Ask for less at once, with a smaller Le or in slices."},
    {kTclDeselected, "card lost", "the exchange with the card failed, and it was deselected", kWakeAgain},
    {kTclNotDeselected, "card lost", "the exchange with the card failed, and it could not even be deselected",
     kWakeAgain},
    {kBflNoTag, "no tag", "no tag answered, or one that is no smart card",
     "Lay the card flat on the reader, hold it still, and try again; \"ls\" shows what it is."},
    {kBflErrorFrame, "refused by the reader", "the chip of the reader does not know the command or its parameters",
     "Check code and parameters."},
    {kBflDeviceTimedOut, "reader silent", "the reader did not answer in time",
     "Try again; if it stays so, plug the reader out and in."},
    {kNoApplicationId, "no application id", "an application id below 6 was given", "Ids run from 6 to FFFF."},
    {kStreamEnd, "short answer", "an answer ended before all values were read", kReport},
    {kStreamFull, "out of memory", "an argument stream cannot grow", "Free some memory and try again."},
    {kWrongValueType, "wrong value type", "an answer holds a value of another type", kReport},
    {kReaderFailed, "reader failed", "the reader refused the operation or did not answer",
     "Try again; if it stays so, plug the reader out and in."},
    {kKeyRefused, "key refused", "the tag did not accept the key", kOtherKey},
    {kNoTag, "no tag", "no tag answered, or it could not be selected", kHoldStill},
    {kBlockNotRead, "block not read", "a block could not be read",
     "Its access conditions may forbid it for this key: see \"access show\"."},
    {kAlreadySuspended, "suspended already", "polling is suspended already", kReport},
    {kNotSuspended, "not suspended", "polling is not suspended", kReport},
    {kTagWithoutUid, "tag without UID", "the given tag holds no UID", "Give the UID as hexadecimal digits."},
    {kDirectoryNotRead, "directory not read", "the directory of the tag could not be read", kFormatFirst},
    {kTooFew, "too few", "there are too few sectors or blocks for this", kSmallerRange},
    {kDirectoryNotWritten, "directory not written", "the directory of the tag could not be written", kOtherKey},
    {kApplicationMissing, "application missing", "the application is not on the tag", "\"app ls\" lists those there."},
    {kOutOfRange, "out of range", "a block, sector or index lies outside the tag or application", kSmallerRange},
    {kBlockKindRefused, "kind refused", "this kind of block cannot be set", kReport},
    {kZeroValue, "no value", "a block that can only be decremented cannot start with 0", "Give it an amount."},
    {kNoValueBlock, "no value block", "the block is no value block, or would not become one",
     "\"value init\" makes a value block; \"access show\" shows which there are."},
    {kNoDataCondition, "no data block", "this condition is not one of data blocks",
     "For value blocks: \"value init\"."},
    {kBlockNotOpened, "block not opened", "the trailer could not be written to open the block", kOtherKey},
    {kNotAllowedHere, "not allowed here", "the operation does not suit this type of tag or way of addressing",
     "\"ls\" shows the type; a directory needs 16 sectors."},
    {kValueFailed, "value failed", "a value operation failed, and whether it took place is unknown",
     "Read the value again before you repeat it."},
    {kCancelled, "cancelled", "the wait was cancelled, or nobody can wait",
     "Without --no-wait, and with TAGPROMPT 1 in the settings, commands wait for a tag."},
    {kWaitOver, "wait over", "the wait time ran out", "Hold a tag to the reader, or wait longer with --wait."},
    {kTypeNotWritten, "type not written", "the new type of the block could not be written", kOtherKey},
    {kTrailerNotRead, "trailer not read", "a sector trailer could not be read", kOtherKey},
    {kDataTooLong, "data too long", "there is more data than the blocks hold", kSmallerRange},
    {kValueNotRead, "value not read", "a value block could not be read",
     "Its access conditions may forbid it for this key: see \"access show\"."},
    {kAccessRefused, "access refused", "access bits are invalid or do not allow this",
     "\"access show\" tells what each key may do."},
    {kApplicationExists, "application exists", "the application is on the tag already",
     "\"app add\" gives it more sectors."},
    {kValueInconsistent, "no sound value", "the block is no sound value block", "\"value set\" makes it one."},
    {kNoDirectory, "no directory", "the tag has no directory, or no tag holds the application", kFormatFirst},
    {kReservedBlock, "reserved block", "the block is reserved",
     "Choose one that is neither a trailer nor page 0 or 1 of an Ultralight."},
    {kPartial, "partial success", "only a part was done", kReadRecords},
    {kBlockNotWritten, "block not written", "a block could not be written",
     "Its access conditions may forbid it for this key: see \"access show\"."},
    {kRepairFailed, "repair failed", "the final repair of the directory failed",
     "Hold the tag still and repeat the command."},
    {kNewKeyMissing, "new key missing", "the new key B is missing", "Give it with the command."},
    {kReaderNotReady, "no reader", "none is ready",
     "Is it connected? May you open its device? Without one, try --virtual new:1k."},
    {kNotImplemented, "not implemented", "this reader does not offer the operation", "Use a reader that does."},
    {kNoSuchSector, "no such sector", "the sector lies outside the tag", kSmallerRange},
    {kNoTrailers, "no trailers", "this type of tag has no sector trailers", "\"ls\" shows the type of the tag."},
};

constexpr StatusText kUnknownFailure = {0, "failed", "the library reported a failure", kHoldStill};
constexpr StatusText kReaderStatus = {0, "reader status", "the reader reports that the card or the link to it failed",
                                      kHoldStill};
constexpr StatusText kLinkFailure = {0, "link failed", "the card or the link to it failed", kHoldStill};

/// For a status without a row; up to 255 it is the reader's own.
constexpr const StatusText* fallbackOf(int status) {
    constexpr int kLastReaderStatus = 0xFF;
    if (status < 0) return &kLinkFailure;
    return status <= kLastReaderStatus ? &kReaderStatus : &kUnknownFailure;
}

constexpr Outcome outcomeOf(int status) { return status == kReaderNotReady ? Outcome::noReader : Outcome::failed; }

}  // namespace

Problem problemOf(int status) {
    const StatusText* text = std::ranges::find(kStatusTexts, status, &StatusText::status);
    if (text == std::end(kStatusTexts)) text = fallbackOf(status);
    return {outcomeOf(status), text->name, text->meaning, text->advice, status};
}
