// The end of a session with a card: by the reader itself, or by an S(DESELECT) from here.

#include "BlockFormat.h"
#include "HostCalcCrc.h"
#include "LogService.h"
#include "QvlTcl.h"
#include "QvlTclUtil.h"
#include "ReceiveRoom.h"
#include "TclTimeouts.h"

#include <new>

namespace {

constexpr std::size_t kWorkArea = 256;
constexpr std::uint8_t kBlockKindMask = 0xC0;

}  // namespace

short QvlTcl::TclDeselect(std::uint8_t cid) {
    if (cid >= kCards) return kTclOutOfRange;
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    const short status = bfl->piccDeselect();
    if (status == kBflNotImplemented) return deselectByBlock(*bfl, cid);
    QvlTclUtil::resetmPicc(this, cid);
    return status;
}

short QvlTcl::deselectByBlock(Qvl14443bfl& bfl, std::uint8_t cid) {
    PiccInfo& card = *mPicc[cid];
    if (const short status = bfl.pcdSetAttrib(card.mDSI, card.mDRI); status != kBflOk) return status;
    QvlTclInternalParams params;
    params.block.reset(new (std::nothrow) std::uint8_t[kWorkArea]{});
    short status = kTclOutOfRange;
    if (params.block) {
        params.blockSize = kWorkArea;
        const bool withCid = (card.mParams.flags & kCidInUse) != 0;
        std::uint16_t length = QvlTclUtil::buildSBlk(&params, withCid ? &cid : nullptr, kDeselect, 0);
        if (mAppend_crc != 0) {
            HostCalcCrc(0, length, params.block.get(), params.block.get() + length);
            length = static_cast<std::uint16_t>(length + kCrcSize);
        }
        mTimeout = kBlockTimeout;
        std::uint8_t answer[kMostReceiveRoom] = {};
        std::uint16_t size = receiveRoom(card, bfl.traits());
        status = bfl.piccExchangeBlock(params.block.get(), length, answer, &size, mAppend_crc, mTimeout);
        if (status == kBflOk && (size == 0 || (answer[0] & kBlockKindMask) != kBlockKindMask))
            status = kTclUnexpectedBlock;
    }
    QvlTclUtil::resetmPicc(this, cid);
    return status;
}
