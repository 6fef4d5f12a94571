// What brings an activated card into protocol state: its ATS, its record in the table, its bit rate. RATS and
// PPS go out from here, unless the reader has done RATS at activation and picks the bit rate by itself.

#include "AtsFormat.h"
#include "BlockFormat.h"
#include "HostCalcCrc.h"
#include "LogService.h"
#include "QvlTcl.h"
#include "QvlTclUtil.h"
#include "ReceiveRoom.h"
#include "TclTimeouts.h"

#include <algorithm>
#include <new>

namespace {

constexpr int kMostActivationTries = 10;

constexpr std::uint8_t kRats = 0xE0;
constexpr std::uint8_t kPpss = 0xD0;
constexpr std::uint8_t kPps0 = 0x11;

}  // namespace

short QvlTcl::TclGetAtsLoop(std::uint8_t baudrate, std::uint8_t sec, std::uint8_t cid, std::uint8_t* atq,
                            std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uidLen, std::uint8_t* ats,
                            std::uint16_t* atsLen, std::uint8_t** hist, std::uint16_t* histLen, std::uint8_t* cidSupp,
                            std::uint8_t* nadSupp) {
    if (baudrate > kFastestBaudrate) return kTclOutOfRange;
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (const short status = bfl->pcdSetDefaultAttrib(); status != kBflOk) return status;
    const bool readerDoesRats = bfl->traits().doesRats;
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
    std::uint8_t answer[kMostReceiveRoom] = {};
    std::uint16_t answerLen = receiveRoom(card, bfl.traits());
    if (const short status = bfl.piccExchangeBlock(frame, length, answer, &answerLen, mAppend_crc, mTimeout);
        status != kBflOk)
        return status;
    const std::size_t crcSize = mAppend_crc != 0 ? kCrcSize : 0;
    if (answerLen < crcSize || answerLen - crcSize > *atsLen) return kTclBadAts;
    *atsLen = static_cast<std::uint16_t>(answerLen - crcSize);
    std::copy_n(answer, *atsLen, ats);
    return kTclOk;
}

short QvlTcl::fetchAts(Qvl14443bfl& bfl, const PiccInfo& card, std::uint8_t cid, std::uint8_t* ats,
                       std::uint16_t* atsLen) {
    if (!bfl.traits().doesRats) return requestAts(bfl, card, cid, ats, atsLen);
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

short QvlTcl::readAts(PiccInfo& card, const std::uint8_t* ats, std::size_t atsLen,
                      std::unique_ptr<std::uint8_t[]>& hist, std::uint16_t& histLen) const {
    const std::size_t tl = atsLen == 0 ? 0 : ats[0];
    if (tl <= 1) return kTclOk;  // the length byte alone: all defaults hold
    if (tl != atsLen) {
        QVL_LOG(kLogFailure, "TclGetAts: ATS Length byte %d is not consistent with ats_len %d when CRC is %d",
                static_cast<int>(tl), static_cast<int>(atsLen), mAppend_crc);
        return kTclBadAts;
    }
    Ats decoded;
    if (const AtsFault fault = decodeAts({ats, tl}, decoded); fault.interfaceByte != nullptr) {
        QVL_LOG(kLogFailure, "TclGetAts: ATS Length byte %d is shorter than expected atsIndex %d for %s",
                static_cast<int>(tl), static_cast<int>(fault.index), fault.interfaceByte);
        return kTclBadAts;
    }
    if (decoded.historicalCount != 0) {
        hist.reset(new (std::nothrow) std::uint8_t[decoded.historicalCount]);
        if (!hist) return kTclBadAts;
        std::copy_n(ats + decoded.historicalStart, decoded.historicalCount, hist.get());
        histLen = static_cast<std::uint16_t>(decoded.historicalCount);
    }
    applyAts(card, decoded);
    return kTclOk;
}

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

    std::unique_ptr<std::uint8_t[]> historical;
    std::uint16_t historicalLen = 0;
    if (const short status = readAts(card, ats, *atsLen, historical, historicalLen); status != kTclOk) return status;
    *histLen = historicalLen;
    *hist = historical.release();
    *cidSupp = card.mCIDSupp;
    *nadSupp = card.mNADSupp;
    takeCid(card, cid);
    return kTclOk;
}

short QvlTcl::TclPps(std::uint8_t cid, std::uint8_t dsi, std::uint8_t dri) {
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    if (bfl->traits().doesRats) return kTclOk;
    if (cid >= kCards) return kTclPpsRefused;
    PiccInfo& card = *mPicc[cid];
    if (dsi > kFastestBaudrate || dsi > card.mPiccDiv || dri > kFastestBaudrate || dri > card.mPcdDiv)
        return kTclPpsRefused;
    if (const short status = bfl->pcdSetAttrib(dsi, dri); status != kBflOk) return status;
    std::uint8_t frame[5] = {static_cast<std::uint8_t>(kPpss | cid), kPps0, static_cast<std::uint8_t>(dsi << 2 | dri)};
    if (mAppend_crc != 0) HostCalcCrc(0, 3, frame, frame + 3);
    mTimeout = kPpsTimeout;
    std::uint8_t answer[kMostReceiveRoom] = {};
    std::uint16_t answerLen = receiveRoom(card, bfl->traits());
    if (const short status = bfl->piccExchangeBlock(frame, sizeof frame, answer, &answerLen, mAppend_crc, mTimeout);
        status != kBflOk)
        return status;
    const std::size_t least = mAppend_crc != 0 ? 1 + kCrcSize : 1;
    if (answerLen < least || answerLen > 1 + kCrcSize || answer[0] != frame[0]) return kTclPpsRefused;
    card.mDSI = dsi;
    card.mDRI = dri;
    return kTclOk;
}
