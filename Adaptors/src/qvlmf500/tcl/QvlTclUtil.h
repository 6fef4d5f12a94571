#pragma once

#include "QvlTcl.h"

/// Static helpers of the card layer.
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
};
