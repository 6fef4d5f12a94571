#include "ErrorText.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace {

using qvl::Reason;

constexpr const char* kOtherKey = "Give the right key, or try the other one (A or B).";
constexpr const char* kFormatFirst = "\"format\" makes a directory; if its key is not the usual one, give --mad-key.";
constexpr const char* kSeeAccess = "\"access show\" tells what each key may do.";
constexpr const char* kReport = "This is a fault of the program: please report it with the command line.";
constexpr const char* kHoldStill = "Lay the tag flat on the reader, hold it still, and try again.";

struct StatusAdvice {
    int status;
    const char* advice;
};

/// Where the reason alone would lead astray.
constexpr StatusAdvice kAdvice[] = {
    {kTclBadAts, "\"ls\" shows what it is; for memory tags there are \"read\" and \"dump\"."},
    {kTclRestPending, "Ask for less at once, with a smaller Le or in slices."},
    {kBflErrorFrame, "Check code and parameters."},
    {kOutOfRange, "\"ls\" shows the size of a tag, \"app ls\" that of an application."},
    {kTooFew, "\"app ls\" shows which sectors are free."},
    {kDirectoryNotRead, kFormatFirst},
    {kNoDirectory, kFormatFirst},
    {kApplicationMissing, "\"app ls\" lists those on the tag."},
    {kApplicationExists, "\"app add\" gives it more sectors."},
    {kNoValueBlock, "\"value init\" makes a value block; \"access show\" shows which there are."},
    {kValueInconsistent, "\"value set\" gives it a value."},
    {kNoDataCondition, "For value blocks there is \"value init\"."},
    {kBlockNotOpened,
     "Key B has to be one that opens the sector: on a factory tag key B can be read, and opens nothing."},
    {kNotAllowedHere, "\"ls\" shows the type of the tag; a directory needs 16 sectors."},
    {kValueFailed, "Read the value before you repeat the command."},
    {kReservedBlock, "Choose one that is neither a trailer nor page 0 or 1 of an Ultralight."},
    {kRepairFailed, "Hold the tag still and repeat the command."},
    {kNewKeyMissing, "Give it with the command."},
    {kNoTrailers, "\"ls\" shows the type of the tag."},
    {kPartial, "The records above say which sectors or blocks; repeat the command for those."},
};

const char* adviceOf(Reason reason) {
    switch (reason) {
    case Reason::noTag:
    case Reason::lost:
        return kHoldStill;
    case Reason::wrongKey:
        return kOtherKey;
    case Reason::notPermitted:
        return kSeeAccess;
    case Reason::noReader:
        return "Connect one, or say where it is: QVL_DEVICE_ROOT, or SERIAL_PORT in the settings. May you open its "
               "device? Without a reader, try --virtual new:1k.";
    case Reason::readerBusy:
        return "Wait until it has ended, or wait longer with --wait-for-reader.";
    case Reason::readerLost:
        return "Try again; if that does not help, unplug the reader and plug it in again.";
    case Reason::notSupported:
        return "Use a reader that does.";
    case Reason::timedOut:
        return "Hold a tag to the reader in time, or wait longer with --wait.";
    case Reason::failed:
        return kReport;
    case Reason::content:
    case Reason::cancelled:
    case Reason::badArgument:
        break;
    }
    return "";
}

Problem problem(Reason reason, int status, const std::string& problemName, const std::string& meaning) {
    const auto* row = std::ranges::find(kAdvice, status, &StatusAdvice::status);
    // A key that looks refused and a block that cannot be read have advice of their own; a tag that left has not.
    const bool isOfStatus = row != std::end(kAdvice) && qvl::statusInfo(status).reason == reason;
    const bool noReader = reason == Reason::noReader || reason == Reason::readerBusy;
    return {noReader ? Outcome::noReader : Outcome::failed, problemName, meaning,
            isOfStatus ? row->advice : adviceOf(reason),    status,      qvl::name(reason)};
}

}  // namespace

Problem problemOf(const qvl::Error& error) {
    const qvl::StatusInfo info = qvl::statusInfo(error.status());
    const bool isOfStatus = error.status() != 0 && info.reason == error.reason();
    return problem(error.reason(), error.status(), isOfStatus ? info.name : qvl::name(error.reason()), error.what());
}

Problem problemOf(int status) {
    const qvl::StatusInfo info = qvl::statusInfo(status);
    return problem(info.reason, status, info.name, info.meaning);
}
