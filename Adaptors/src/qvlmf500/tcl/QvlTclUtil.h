#pragma once

#include "QvlTcl.h"

/// Static helpers of the card layer. Those that take the parameters of a card work on the block in `p->block`, which
/// has to be there: they build it for sending, and check and take in what was received, by ISO/IEC 14443-4.
class QVL_API QvlTclUtil {
  public:
    /// Frame size in bytes of an index, ISO/IEC 14443-4: 16 to 256 for 0 to 8, 512 above; an index above 15 counts as
    /// 15. Both directions use the same table.
    static std::uint16_t convertFSDI2FSD(std::uint8_t index);
    static std::uint16_t convertFSCI2FSC(std::uint8_t index);

    /// The record back to its start values; the CID is free then. A CID above 15 changes nothing.
    static void resetmPicc(QvlTcl* tcl, std::uint8_t cid);
    /// A free CID, or 16 when none. With Mf500bfl the search begins at CID 1.
    static std::uint8_t getAvailableCid(const QvlTcl* tcl);
    /// False when the first `uidLen` bytes of a taken record equal `uid`; `cid` is then that record's. True otherwise,
    /// with a free CID, or 16, in `cid`. An empty UID matches the first taken record.
    static bool isNewCid(const QvlTcl* tcl, const std::uint8_t* uid, std::uint8_t uidLen, std::uint8_t& cid);
    /// Prints the record on the standard output.
    static void dumpPiccInfo(QvlTcl* tcl, std::uint8_t cid);

    /// An I-block with as much of the data from `p->dataPos` on as fits, and `dataPos` moved after it. `cid` and `nad`
    /// are null when not in use. The chaining bit stands when data remains or `moreFollows` is not 0. @return its
    /// length; 1, with nothing built, when the positions lie outside the data.
    static std::uint16_t buildIBlk(QvlTclInternalParams* p, const std::uint8_t* cid, const std::uint8_t* nad,
                                   const std::uint8_t* data, std::uint32_t dataLen, std::uint8_t moreFollows);
    /// R(ACK), or R(NAK) with `nak` 0x10. @return its length, 1 or 2.
    static std::uint16_t buildRBlk(QvlTclInternalParams* p, const std::uint8_t* cid, std::uint8_t nak,
                                   std::uint8_t blockNumber);
    /// S(DESELECT) with `type` 0, S(WTX) with 0x30 and its parameter. @return its length, 1 to 3.
    static std::uint16_t buildSBlk(QvlTclInternalParams* p, const std::uint8_t* cid, std::uint8_t type,
                                   std::uint8_t parameter);

    /// The state to run next with `which` not 0, the one that ran last with 0.
    static void setState(QvlTclInternalParams* p, std::uint8_t which, std::uint8_t value);
    static std::uint8_t getState(const QvlTclInternalParams* p, std::uint8_t which);

    /// 0, or -21 when the received block is not for this card.
    static int checkCid(const QvlTclInternalParams* p);
    /// 0 when the received block of `len` bytes is the I-block that is due, else -21 (CID or NAD), -23 (another block,
    /// or shorter than its header) or -25 (block number). A NAD that fits is stored at `p->nad`.
    static int checkI(QvlTclInternalParams* p, std::uint16_t len);
    /// The same for an R(ACK).
    static int checkRAck(const QvlTclInternalParams* p, std::uint16_t len);
    /// The same for an S(WTX): 0, -21 or -23.
    static int checkSWtx(const QvlTclInternalParams* p, std::uint16_t len);
    /// Copies the data of an I-block that checkI accepted to `p->dataPos` and counts it in `*total`. @return 0, or -24
    /// when `recvData` is full; `restPos` and `restEnd` then tell what of the block is left.
    static int receiveI(QvlTclInternalParams* p, std::uint16_t len, const std::uint8_t* recvData,
                        std::uint32_t recvSize, std::uint32_t* total);
    /// The parameter byte of an S(WTX) that checkSWtx accepted.
    static std::uint8_t receiveSWtx(const QvlTclInternalParams* p);
};
