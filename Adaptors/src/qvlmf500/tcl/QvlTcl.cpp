// The card table, and the activation of a card at the level of ISO/IEC 14443-3. A reader that does RATS by itself knows
// one bit rate.

#include "QvlTcl.h"

#include "BlockFormat.h"
#include "QvlTclUtil.h"
#include "TagSizes.h"
#include "TclTimeouts.h"

#include <algorithm>
#include <cstdio>
#include <new>

namespace {

constexpr std::uint16_t kFieldResetMs = 5;

}  // namespace

QvlTcl::QvlTcl()
    : mAppend_crc(1), mTimeout(kRatsTimeout), mMaxTry(0), mSelDSI(0), mSelDRI(0), mSelUid{}, mSelUidLen(0),
      mAtsLen(0), mAts{} {
    for (auto& card : mPicc)
        card = std::make_unique<PiccInfo>();
}

QvlTcl::~QvlTcl() = default;

std::shared_ptr<Qvl14443bfl> QvlTcl::driver() const {
    const std::lock_guard lock(mBflMutex);
    return mBfl;
}

void QvlTcl::setDriver(std::shared_ptr<Qvl14443bfl> driver) {
    // The replaced driver may end with this; not under the lock.
    const std::lock_guard lock(mBflMutex);
    mBfl.swap(driver);
}

short QvlTcl::TclInit(std::uint8_t maxTry) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (const short status = bfl->interfaceOpen(49, 0); status != kBflOk && status != kBflOpened) return status;
    if (const short status = bfl->pcdConfig(); status != kBflOk) return status;
    const short status = bfl->pcdRfReset(kFieldResetMs);
    reset(maxTry);
    return status;
}

short QvlTcl::reset(std::uint8_t maxTry) {
    if (maxTry == 0) return kTclBadArgument;
    for (std::uint8_t cid = 0; cid < kCards - 1; ++cid)
        QvlTclUtil::resetmPicc(this, cid);
    // The last record stays, but the answer that it had begun to deliver is of another session.
    mPicc[kCards - 1]->mFlags &= static_cast<std::uint8_t>(~kRestPending);
    mPicc[kCards - 1]->mParams.block.reset();
    mAppend_crc = 1;
    mTimeout = kRatsTimeout;
    mMaxTry = maxTry;
    mSelDSI = 0;
    mSelDRI = 0;
    std::ranges::fill(mSelUid, std::uint8_t{0});
    mSelUidLen = 0;
    return kTclOk;
}

char* QvlTcl::TclMessage(int code) {
    constexpr std::size_t kSize = 32;
    char* text = new (std::nothrow) char[kSize];
    if (text != nullptr) std::snprintf(text, kSize, "Error Code = %d", code);
    return text;
}

short QvlTcl::TclDebug(std::uint8_t) { return kTclOk; }

short QvlTcl::rememberSelected(std::uint8_t baudrate, const std::uint8_t* uid, std::uint8_t uidLen) {
    mSelDSI = baudrate;
    mSelDRI = baudrate;
    if (uidLen > kMostUidBytes) return kTclUidTooLong;
    std::ranges::fill(mSelUid, std::uint8_t{0});
    std::copy_n(uid, uidLen, mSelUid);
    mSelUidLen = uidLen;
    return kTclOk;
}

template <typename Plain, typename WithAts>
short QvlTcl::activate(std::uint8_t baudrate, const std::uint8_t* uid, const std::uint8_t& uidLen, Plain plain,
                       WithAts withAts) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    const bool readerDoesRats = bfl->traits().doesRats;
    if (baudrate > (readerDoesRats ? 0 : kFastestBaudrate)) return kTclOutOfRange;
    if (readerDoesRats)
        std::ranges::fill(mAts, std::uint8_t{0});
    else if (const short status = bfl->pcdSetDefaultAttrib(); status != kBflOk)
        return status;
    if (const short status = readerDoesRats ? withAts(*bfl) : plain(*bfl); status != kBflOk) return status;
    if (const short status = rememberSelected(baudrate, uid, uidLen); status != kTclOk) return status;
    return readerDoesRats ? short{kTclOk} : bfl->pcdSetAttrib(mSelDSI, mSelDRI);
}

short QvlTcl::TclActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                              std::uint8_t* uidLen) {
    return activate(
        baudrate, uid, *uidLen, [&](Qvl14443bfl& bfl) { return bfl.piccActivateIdle(baudrate, atq, sak, uid, uidLen); },
        [&](Qvl14443bfl& bfl) { return bfl.piccActivateIdle(0, atq, sak, uid, uidLen, mAts, &mAtsLen); });
}

short QvlTcl::TclActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                std::uint8_t uidLen) {
    return activate(
        baudrate, uid, uidLen,
        [&](Qvl14443bfl& bfl) { return bfl.piccActivateWakeup(baudrate, atq, sak, uid, uidLen); },
        [&](Qvl14443bfl& bfl) { return bfl.piccActivateWakeup(0, atq, sak, uid, uidLen, mAts, &mAtsLen); });
}

short QvlTcl::TclHalt() {
    const auto bfl = driver();
    return bfl ? bfl->piccHalt() : short{kBflNoDevice};
}
