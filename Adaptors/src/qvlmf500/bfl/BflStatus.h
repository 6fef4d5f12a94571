#pragma once

#include <cstdint>

/// Status values of the reader drivers. 0 is success, except of interfaceOpen; 1 to 255 is the reader's own status
/// byte.
enum BflStatus : std::int16_t {
    kBflOk = 0,
    kBflNotImplemented = 3139,   ///< This driver does not implement the operation.
    kBflNoTag = -1,              ///< No tag, tag not in the field, no UID, or another tag answered.
    kBflOpened = -20,            ///< interfaceOpen: the interface is open. Its success value.
    kBflNoAts = -48,             ///< The reply carried no ATS.
    kBflBadSendLength = -51,     ///< piccExchangeBlock: nothing to send, or more than the reader takes.
    kBflOutOfRange = -60,        ///< Argument out of range or null; pcdConfig: wrong link key confirmation.
    kBflErrorFrame = -100,       ///< The reader answered with the ERROR frame.
    kBflNotOpened = -255,        ///< interfaceOpen: the interface could not be created or opened.
    kBflDeviceFailed = -1001,    ///< The device failed a read or a write.
    kBflNoDevice = -1002,        ///< No device is open.
    kBflBadFrame = -1012,        ///< A frame failed a check, an ACK was expected, or a reply is too short.
    kBflDeviceTimedOut = -1027,  ///< The device timed out.
    kBflBadStart = -1049,        ///< Wrong preamble or start code.
};

/// True for a failure of the device and not of a tag: the interface has to be opened anew.
constexpr bool isDeviceLost(int bflStatus) { return bflStatus < -1000; }
