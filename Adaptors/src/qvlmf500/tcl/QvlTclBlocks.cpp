// Blocks of ISO/IEC 14443-4: built from the state of an exchange, and checked against it. Pure.

#include "BlockFormat.h"
#include "QvlTclUtil.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::uint8_t swapNibbles(std::uint8_t byte) { return static_cast<std::uint8_t>(byte << 4 | byte >> 4); }

std::uint16_t putCid(QvlTclInternalParams& p, const std::uint8_t* cid, std::uint16_t length) {
    if (cid == nullptr) return length;
    p.block[0] |= kPcbCid;
    p.block[length] = *cid;
    return static_cast<std::uint16_t>(length + 1);
}

// PCB and CID of a received block. What its PCB announces has to be there.
std::size_t headerOf(const QvlTclInternalParams& p) { return (p.block[0] & kPcbCid) != 0 ? 2 : 1; }

bool isInformation(std::uint8_t pcb) { return (pcb & kIBlockMask) == kIBlock; }

// The NAD of a received I-block answers the one sent: its nibbles change places. The caller's byte becomes what came.
int takeNad(QvlTclInternalParams& p) {
    const std::uint8_t nad = p.block[headerOf(p)];
    const bool isExpected = (p.flags & kNadInUse) != 0 && (p.flags & kNadSent) != 0 && p.nad != nullptr;
    if (!isExpected || (nad & kNadReserved) != 0 || swapNibbles(nad) != *p.nad) return kTclWrongAddress;
    *p.nad = nad;
    p.flags &= static_cast<std::uint8_t>(~kNadSent);
    return kTclOk;
}

}  // namespace

std::uint16_t QvlTclUtil::buildIBlk(QvlTclInternalParams* p, const std::uint8_t* cid, const std::uint8_t* nad,
                                    const std::uint8_t* data, std::uint32_t dataLen, std::uint8_t moreFollows) {
    const std::uint8_t* const end = data + dataLen;
    if (p->dataPos < data || p->dataPos > end || p->dataMark < data || p->dataMark > end) return 1;
    p->block[0] = static_cast<std::uint8_t>(kIBlock | p->blockNumber);
    std::uint16_t length = putCid(*p, cid, 1);
    if (nad != nullptr) {
        p->block[0] |= kPcbNad;
        p->block[length++] = *nad;
        p->flags |= kNadSent;
    }
    const auto room = static_cast<std::ptrdiff_t>(p->blockSize > length ? p->blockSize - length : 0);
    const std::ptrdiff_t count = std::min(end - p->dataPos, room);
    std::copy_n(p->dataPos, count, p->block.get() + length);
    p->dataPos += count;
    if (p->dataPos != end || moreFollows != 0) p->block[0] |= kPcbChaining;
    return static_cast<std::uint16_t>(length + count);
}

std::uint16_t QvlTclUtil::buildRBlk(QvlTclInternalParams* p, const std::uint8_t* cid, std::uint8_t nak,
                                    std::uint8_t blockNumber) {
    p->block[0] = static_cast<std::uint8_t>(kRBlock | nak | blockNumber);
    return putCid(*p, cid, 1);
}

std::uint16_t QvlTclUtil::buildSBlk(QvlTclInternalParams* p, const std::uint8_t* cid, std::uint8_t type,
                                    std::uint8_t parameter) {
    p->block[0] = static_cast<std::uint8_t>(kSBlock | type);
    std::uint16_t length = putCid(*p, cid, 1);
    if (type != kDeselect) p->block[length++] = parameter;
    return length;
}

void QvlTclUtil::setState(QvlTclInternalParams* p, std::uint8_t which, std::uint8_t value) {
    p->state = static_cast<std::uint8_t>(which != 0 ? (p->state & 0xF0) | (value & 0x0F)
                                                    : (p->state & 0x0F) | (value & 0x0F) << 4);
}

std::uint8_t QvlTclUtil::getState(const QvlTclInternalParams* p, std::uint8_t which) {
    return static_cast<std::uint8_t>(which != 0 ? p->state & 0x0F : p->state >> 4);
}

int QvlTclUtil::checkCid(const QvlTclInternalParams* p) {
    const bool inUse = (p->flags & kCidInUse) != 0;
    if ((p->block[0] & kPcbCid) == 0) return inUse ? kTclWrongAddress : kTclOk;
    const std::uint8_t cid = p->block[1];
    return inUse && (cid & kCidReserved) == 0 && (cid & kCidNumber) == p->cid ? kTclOk : kTclWrongAddress;
}

int QvlTclUtil::checkI(QvlTclInternalParams* p, std::uint16_t len) {
    if (len == 0 || !isInformation(p->block[0])) return kTclUnexpectedBlock;
    const bool hasNad = (p->block[0] & kPcbNad) != 0;
    if (len < headerOf(*p) + (hasNad ? 1u : 0u)) return kTclUnexpectedBlock;
    if ((p->block[0] & kPcbNumber) != p->blockNumber) return kTclWrongNumber;
    if (checkCid(p) != kTclOk) return kTclWrongAddress;
    if (hasNad) return takeNad(*p);
    return (p->flags & kNadSent) != 0 ? kTclWrongAddress : kTclOk;
}

int QvlTclUtil::checkRAck(const QvlTclInternalParams* p, std::uint16_t len) {
    const bool isAck = len >= 1 && len <= 2 && (p->block[0] & kControlMask) == kAckControl;
    if (!isAck || len < headerOf(*p)) return kTclUnexpectedBlock;
    if ((p->block[0] & kPcbNumber) != p->blockNumber) return kTclWrongNumber;
    return checkCid(p) == kTclOk ? kTclOk : kTclWrongAddress;
}

int QvlTclUtil::checkSWtx(const QvlTclInternalParams* p, std::uint16_t len) {
    const bool isWtx = len >= 1 && len <= 3 && (p->block[0] & kControlMask) == kWtxControl;
    if (!isWtx || len < headerOf(*p) + 1) return kTclUnexpectedBlock;
    return checkCid(p) == kTclOk ? kTclOk : kTclWrongAddress;
}

int QvlTclUtil::receiveI(QvlTclInternalParams* p, std::uint16_t len, const std::uint8_t* recvData,
                         std::uint32_t recvSize, std::uint32_t* total) {
    if (p->dataMark < recvData || p->dataPos < recvData) return kTclOk;
    // An accepted block that carries a NAD has it in its header, even though nothing is expected any more.
    const bool hasNad = (p->flags & kNadSent) != 0 || (p->block[0] & kPcbNad) != 0;
    const int header = 1 + ((p->flags & kCidInUse) != 0 ? 1 : 0) + (hasNad ? 1 : 0);
    if (header >= len) return kTclOk;
    const std::ptrdiff_t room = recvData + recvSize - p->dataPos;
    const std::ptrdiff_t count = std::min<std::ptrdiff_t>(len - header, std::max<std::ptrdiff_t>(room, 0));
    std::copy_n(p->block.get() + header, count, p->dataPos);
    p->dataPos += count;
    *total += static_cast<std::uint32_t>(count);
    if (header + count == len) return kTclOk;
    p->restPos = static_cast<std::uint16_t>(header + count);
    p->restEnd = len;
    return kTclBufferFull;
}

std::uint8_t QvlTclUtil::receiveSWtx(const QvlTclInternalParams* p) {
    return p->block[(p->flags & kCidInUse) != 0 ? 2 : 1];
}
