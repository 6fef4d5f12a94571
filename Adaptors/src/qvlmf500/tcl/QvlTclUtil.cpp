#include "QvlTclUtil.h"

#include "HexText.h"

#include <algorithm>
#include <cstdio>

namespace {

// ISO/IEC 14443-4 for 0 to 8; the indices that it reserves for larger frames all give the largest.
constexpr std::uint16_t kFrameSizes[16] = {16, 24, 32, 40, 48, 64, 96, 128, 256, 512, 512, 512, 512, 512, 512, 512};

constexpr std::uint8_t kDefaultFwi = 4;

}  // namespace

std::uint16_t QvlTclUtil::convertFSDI2FSD(std::uint8_t index) { return kFrameSizes[std::min<std::uint8_t>(index, 15)]; }

std::uint16_t QvlTclUtil::convertFSCI2FSC(std::uint8_t index) { return convertFSDI2FSD(index); }

void QvlTclUtil::resetmPicc(QvlTcl* tcl, std::uint8_t cid) {
    if (cid >= QvlTcl::kCards) return;
    *tcl->mPicc[cid] = PiccInfo{};
    tcl->mPicc[cid]->mFWI = kDefaultFwi;
}

std::uint8_t QvlTclUtil::getAvailableCid(const QvlTcl* tcl) {
    const auto bfl = tcl->driver();
    std::uint8_t cid = bfl ? bfl->traits().firstCid : 1;
    while (cid < QvlTcl::kCards && tcl->mPicc[cid]->mUidLen != 0)
        ++cid;
    return cid;
}

bool QvlTclUtil::isNewCid(const QvlTcl* tcl, const std::uint8_t* uid, std::uint8_t uidLen, std::uint8_t& cid) {
    for (std::uint8_t i = 0; i < QvlTcl::kCards; ++i) {
        const PiccInfo& card = *tcl->mPicc[i];
        if (card.mUidLen == 0 || uidLen > sizeof card.mUid || !std::equal(uid, uid + uidLen, card.mUid)) continue;
        cid = i;
        return false;
    }
    cid = getAvailableCid(tcl);
    return true;
}

void QvlTclUtil::dumpPiccInfo(QvlTcl* tcl, std::uint8_t cid) {
    if (cid >= QvlTcl::kCards) return;
    const PiccInfo& card = *tcl->mPicc[cid];
    char uid[2 * sizeof card.mUid + 1];
    hexDump(card.mUid, std::min<std::uint32_t>(card.mUidLen, sizeof card.mUid), uid);
    std::printf("\nDump PiccInfo class BEGIN ==========================\n");
    std::printf("  mPicc[%d] contains:\n", cid);
    std::printf("   mCID  = 0x%02x\n", card.mCID);
    std::printf("   mFSCI = 0x%02x   mFSC = %d\n", card.mFSCI, card.mFSC);
    std::printf("   mFSDI = 0x%02x   mFSD = %d\n", card.mFSDI, card.mFSD);
    std::printf("   mFWI  = 0x%02x   mWTX = 0x%02x\n", card.mFWI, card.mWTX);
    std::printf("   mCIDSupp = 0x%02x   mNADSupp = 0x%02x\n", card.mCIDSupp, card.mNADSupp);
    std::printf("   mPiccDiv = 0x%02x   mPcdDiv  = 0x%02x\n", card.mPiccDiv, card.mPcdDiv);
    std::printf("   mBlknr= 0x%02x\n", card.mBlknr);
    std::printf("   mDSI  = 0x%02x   mDRI = 0x%02x\n", card.mDSI, card.mDRI);
    std::printf("   mFSI  = 0x%02x\n", card.mFSI);
    std::printf("   mTA1  = 0x%02x   mTB1 = 0x%02x   mTC1 = 0x%02x\n", card.mTA1, card.mTB1, card.mTC1);
    std::printf("   mSFGI = 0x%02x\n", card.mSFGI);
    std::printf("   mFlags = 0x%02x\n", card.mFlags);
    std::printf("   mUidLen = 0x%02X   mUid = 0x%s\n", card.mUidLen, uid);
    std::printf("  Global members\n");
    std::printf("   mAppend_crc = 0x%02x   mTimeout = %d   mMaxTry = 0x%02x\n", tcl->mAppend_crc,
                static_cast<int>(tcl->mTimeout), tcl->mMaxTry);
    std::printf("Dump PiccInfo class  END   ==========================\n\n");
}
