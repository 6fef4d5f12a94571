// The card table and what brings a card into protocol state. Where the two readers differ, getBflType decides: the MF
// RC500 gets its RATS and PPS from here, the TAMA reader does RATS by itself and picks the bit rate.

#include "QvlTcl.h"

#include "AtsFormat.h"
#include "HostCalcCrc.h"
#include "LogService.h"
#include "QvlTclUtil.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr std::uint32_t kRatsTimeout = 10000;
constexpr std::uint32_t kPpsTimeout = 16384;
constexpr std::uint8_t kFastestBaudrate = 3;
constexpr std::uint8_t kMostUidBytes = 10;
constexpr int kMostActivationTries = 10;
constexpr std::uint16_t kFieldResetMs = 5;
constexpr std::size_t kCrcSize = 2;

constexpr std::uint8_t kRats = 0xE0;
constexpr std::uint8_t kPpss = 0xD0;
constexpr std::uint8_t kPps0 = 0x11;

// `mFlags` and the flags of the block protocol.
constexpr std::uint8_t kNadInUse = 0x01;
constexpr std::uint8_t kCidInUse = 0x02;

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

short QvlTcl::TclActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                              std::uint8_t* uidLen) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (bfl->getBflType() == BflTypeMf500) {
        if (baudrate > kFastestBaudrate) return kTclOutOfRange;
        if (const short status = bfl->pcdSetDefaultAttrib(); status != kBflOk) return status;
        if (const short status = bfl->piccActivateIdle(baudrate, atq, sak, uid, uidLen); status != kBflOk)
            return status;
        if (const short status = rememberSelected(baudrate, uid, *uidLen); status != kTclOk) return status;
        return bfl->pcdSetAttrib(mSelDSI, mSelDRI);
    }
    if (baudrate != 0) return kTclOutOfRange;
    std::ranges::fill(mAts, std::uint8_t{0});
    if (const short status = bfl->piccActivateIdle(0, atq, sak, uid, uidLen, mAts, &mAtsLen); status != kBflOk)
        return status;
    return rememberSelected(baudrate, uid, *uidLen);
}

short QvlTcl::TclActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                std::uint8_t uidLen) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (bfl->getBflType() == BflTypeMf500) {
        if (baudrate > kFastestBaudrate) return kTclOutOfRange;
        if (const short status = bfl->pcdSetDefaultAttrib(); status != kBflOk) return status;
        if (const short status = bfl->piccActivateWakeup(baudrate, atq, sak, uid, uidLen); status != kBflOk)
            return status;
        if (const short status = rememberSelected(baudrate, uid, uidLen); status != kTclOk) return status;
        return bfl->pcdSetAttrib(mSelDSI, mSelDRI);
    }
    if (baudrate != 0) return kTclOutOfRange;
    std::ranges::fill(mAts, std::uint8_t{0});
    if (const short status = bfl->piccActivateWakeup(0, atq, sak, uid, uidLen, mAts, &mAtsLen); status != kBflOk)
        return status;
    return rememberSelected(baudrate, uid, uidLen);
}

short QvlTcl::TclGetAtsLoop(std::uint8_t baudrate, std::uint8_t sec, std::uint8_t cid, std::uint8_t* atq,
                            std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uidLen, std::uint8_t* ats,
                            std::uint16_t* atsLen, std::uint8_t** hist, std::uint16_t* histLen, std::uint8_t* cidSupp,
                            std::uint8_t* nadSupp) {
    if (baudrate > kFastestBaudrate) return kTclOutOfRange;
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (const short status = bfl->pcdSetDefaultAttrib(); status != kBflOk) return status;
    const bool readerDoesRats = bfl->getBflType() == BflTypeNfcTama;
    short status = kBflNoTag;
    for (int tries = 0; tries < kMostActivationTries && status != kBflOk; ++tries)
        status = readerDoesRats ? bfl->piccActivateIdleLoop(baudrate, atq, sak, uid, uidLen, sec, mAts, &mAtsLen)
                                : bfl->piccActivateIdleLoop(baudrate, atq, sak, uid, uidLen, sec);
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "TclGetAtsLoop failed with %d", status);
        return status;
    }
    if (const short kept = rememberSelected(baudrate, uid, *uidLen); kept != kTclOk) return kept;
    if (const short set = bfl->pcdSetAttrib(mSelDSI, mSelDRI); set != kBflOk) return set;
    return static_cast<std::uint8_t>(TclGetAts(cid, ats, atsLen, hist, histLen, cidSupp, nadSupp));
}

short QvlTcl::requestAts(Qvl14443bfl& bfl, const PiccInfo& card, std::uint8_t cid, std::uint8_t* ats,
                         std::uint16_t* atsLen) {
    std::uint8_t frame[4] = {kRats, static_cast<std::uint8_t>(card.mFSDI << 4 | (cid & 0x0F))};
    std::uint16_t length = 2;
    if (mAppend_crc != 0) {
        HostCalcCrc(0, length, frame, frame + length);
        length = static_cast<std::uint16_t>(length + kCrcSize);
    }
    mTimeout = kRatsTimeout;
    std::fill_n(ats, *atsLen, std::uint8_t{0});
    if (const short status = bfl.piccExchangeBlock(frame, length, ats, atsLen, mAppend_crc, mTimeout); status != kBflOk)
        return status;
    if (mAppend_crc == 0) return kTclOk;
    if (*atsLen < kCrcSize) return kTclBadAts;
    *atsLen = static_cast<std::uint16_t>(*atsLen - kCrcSize);
    return kTclOk;
}

short QvlTcl::fetchAts(Qvl14443bfl& bfl, const PiccInfo& card, std::uint8_t cid, std::uint8_t* ats,
                       std::uint16_t* atsLen) {
    if (bfl.getBflType() == BflTypeMf500) return requestAts(bfl, card, cid, ats, atsLen);
    if (mAtsLen > *atsLen) return kTclBadAts;
    *atsLen = mAtsLen;
    std::copy_n(mAts, mAtsLen, ats);
    return kTclOk;
}

void QvlTcl::takeCid(PiccInfo& card, std::uint8_t cid) const {
    card.mCID = cid;
    card.mDRI = mSelDRI;
    card.mDSI = mSelDSI;
    card.mUidLen = mSelUidLen;
    std::ranges::copy(mSelUid, card.mUid);
    card.mParams.cid = cid;
    card.mParams.dri = card.mDRI;
    card.mParams.dsi = card.mDSI;
    card.mParams.fwi = card.mFWI;
    card.mParams.blockNumber = card.mBlknr;
    card.mParams.flags = card.mFlags;
}

namespace {

// Takes over what the ATS says; `card` keeps its defaults where the ATS says nothing.
void applyAts(PiccInfo& card, const Ats& ats) {
    if (!ats.hasFormat) return;
    card.mFSCI = ats.fsci;
    card.mFSC = QvlTclUtil::convertFSCI2FSC(card.mFSCI);
    card.mFSI = std::min(card.mFSCI, card.mFSDI);
    card.mTA1 = ats.ta1;
    if (ats.hasTb1) {
        card.mTB1 = ats.tb1;
        card.mFWI = ats.tb1 >> 4;
        card.mSFGI = ats.tb1 & 0x0F;
    }
    card.mTC1 = ats.tc1;
    card.mCIDSupp = card.mTC1 >> 1 & 1;
    card.mNADSupp = card.mTC1 & 1;
    if (card.mCIDSupp != 0) card.mFlags |= kCidInUse;
    if (card.mNADSupp != 0) card.mFlags |= kNadInUse;
}

}  // namespace

short QvlTcl::TclGetAts(std::uint8_t cid, std::uint8_t* ats, std::uint16_t* atsLen, std::uint8_t** hist,
                        std::uint16_t* histLen, std::uint8_t* cidSupp, std::uint8_t* nadSupp) {
    if (cid >= kCards) return kTclOutOfRange;
    if (ats == nullptr || atsLen == nullptr || hist == nullptr || histLen == nullptr || cidSupp == nullptr ||
        nadSupp == nullptr)
        return kTclOutOfRange;
    if (mSelUidLen == 0) {
        QVL_LOG(kLogFailure, "TclGetAts cannot proceed without a selected tagId!");
        return kTclNoCardSelected;
    }
    QvlTclUtil::resetmPicc(this, cid);
    PiccInfo& card = *mPicc[cid];
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    std::uint8_t unused = 0;
    if (const short status = bfl->pcdGetAttrib(&card.mFSCI, &card.mFSDI, &card.mPiccDiv, &card.mPcdDiv, &unused);
        status != kBflOk)
        return status;
    card.mFSC = QvlTclUtil::convertFSCI2FSC(card.mFSCI);
    card.mFSD = QvlTclUtil::convertFSDI2FSD(card.mFSDI);
    if (const short status = fetchAts(*bfl, card, cid, ats, atsLen); status != kTclOk) return status;
    if (*atsLen > card.mFSD) {
        QVL_LOG(kLogFailure, "TclGetAts: ATS length %d should not be great than FSD %d", *atsLen, card.mFSD);
        return kTclBadAts;
    }

    const std::uint8_t tl = *atsLen == 0 ? std::uint8_t{0} : ats[0];
    Ats decoded;
    std::unique_ptr<std::uint8_t[]> historical;
    if (tl > 1) {
        if (tl != *atsLen) {
            QVL_LOG(kLogFailure, "TclGetAts: ATS Length byte %d is not consistent with ats_len %d when CRC is %d", tl,
                    *atsLen, mAppend_crc);
            return kTclBadAts;
        }
        if (const AtsFault fault = decodeAts({ats, tl}, decoded); fault.interfaceByte != nullptr) {
            QVL_LOG(kLogFailure, "TclGetAts: ATS Length byte %d is shorter than expected atsIndex %d for %s", tl,
                    static_cast<int>(fault.index), fault.interfaceByte);
            return kTclBadAts;
        }
        if (decoded.historicalCount != 0) {
            historical.reset(new (std::nothrow) std::uint8_t[decoded.historicalCount]);
            if (!historical) return kTclBadAts;
            std::copy_n(ats + decoded.historicalStart, decoded.historicalCount, historical.get());
        }
        applyAts(card, decoded);
    }
    *histLen = static_cast<std::uint16_t>(decoded.historicalCount);
    *hist = historical.release();
    *cidSupp = card.mCIDSupp;
    *nadSupp = card.mNADSupp;
    takeCid(card, cid);
    return kTclOk;
}

short QvlTcl::TclPps(std::uint8_t cid, std::uint8_t dsi, std::uint8_t dri) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (bfl->getBflType() == BflTypeNfcTama) return kTclOk;
    if (cid >= kCards) return kTclPpsRefused;
    PiccInfo& card = *mPicc[cid];
    if (dsi > kFastestBaudrate || dsi > card.mPiccDiv || dri > kFastestBaudrate || dri > card.mPcdDiv)
        return kTclPpsRefused;
    if (const short status = bfl->pcdSetAttrib(dsi, dri); status != kBflOk) return status;
    std::uint8_t frame[5] = {static_cast<std::uint8_t>(kPpss | cid), kPps0, static_cast<std::uint8_t>(dsi << 2 | dri)};
    if (mAppend_crc != 0) HostCalcCrc(0, 3, frame, frame + 3);
    mTimeout = kPpsTimeout;
    std::uint8_t answer[3] = {};
    std::uint16_t answerLen = sizeof answer;
    if (const short status = bfl->piccExchangeBlock(frame, sizeof frame, answer, &answerLen, mAppend_crc, mTimeout);
        status != kBflOk)
        return status;
    const std::size_t least = mAppend_crc != 0 ? 1 + kCrcSize : 1;
    if (answerLen < least || answer[0] != frame[0]) return kTclPpsRefused;
    card.mDSI = dsi;
    card.mDRI = dri;
    return kTclOk;
}

short QvlTcl::TclHalt() {
    const auto bfl = driver();
    return bfl ? bfl->piccHalt() : short{kBflNoDevice};
}
