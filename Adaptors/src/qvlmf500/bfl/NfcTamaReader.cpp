// The reader side of the TAMA driver: its life, opening and closing the device, configuration, identity, RF field, LED.

#include "Clock.h"
#include "KeyPool.h"
#include "LinkCipher.h"
#include "LogService.h"
#include "NfcTamaBfl.h"
#include "TamaDeviceFactory.h"
#include "TamaFrame.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr std::uint32_t kDefaultTimeoutMs = 15000;
constexpr std::uint32_t kDefaultBaudRate = 9600;
constexpr const char* kDefaultDeviceName = "\\\\.\\USB_TESTDevice0";

constexpr std::uint8_t kSetParameters = 0x12;
constexpr std::uint8_t kGetIdentity = 0x24;
constexpr std::uint8_t kSwitchLed = 0x26;
constexpr std::uint8_t kRfConfiguration = 0x32;

constexpr std::uint8_t kParametersPlain = 0x0C;
constexpr std::uint8_t kParametersWithRats = 0x1C;

constexpr std::uint8_t kLongestLedTime = 31;

// Reply to the identity command, as offsets into the frame.
constexpr std::size_t kSerialNumber = 8;
constexpr std::size_t kSerialNumberSize = 6;
constexpr std::size_t kVendor = 14;
constexpr std::size_t kProduct = 16;
constexpr std::size_t kVersion = 18;
constexpr std::size_t kIdentityReplyLen = 16;
constexpr std::size_t kStatusReplyLen = 3;

// The one object, and who owns it: raw callers of Instance, or the pointers that acquire gave out.
struct Singleton {
    std::recursive_mutex mutex;
    NfcTamaBfl* object = nullptr;
    std::weak_ptr<NfcTamaBfl> users;
    bool hasUsers = false;
};

Singleton& singleton() {
    static Singleton instance;
    return instance;
}

// Cuts the baud rate off a serial name, as in "COM3;9600".
std::uint32_t takeBaudRate(char* name) {
    std::uint32_t baudRate = kDefaultBaudRate;
    char* separator = std::strchr(name, ';');
    if (separator == nullptr) return baudRate;
    *separator = '\0';
    const char* digits = separator + 1;
    char* end = nullptr;
    const long number = std::strtol(digits, &end, 10);
    if (end != digits) baudRate = static_cast<std::uint32_t>(std::clamp<long>(number, 0, INT32_MAX));
    return baudRate;
}

}  // namespace

NfcTamaBfl::NfcTamaBfl()
    : mDataInBuf{}, mDataInBufLen(0), mTimeout(kDefaultTimeoutMs), mLinkCipher(std::make_shared<LinkCipher>()),
      mCommandCount(0), mRekeyInterval(nextRekeyInterval()), mRelayMode(false), mPending(Pending::nothing),
      mLastCode(0), mIsLastAcknowledged(false), mDeviceGone(false) {
    seedKeyPool();
    setDeviceName(reinterpret_cast<const std::uint8_t*>(kDefaultDeviceName));
}

NfcTamaBfl::~NfcTamaBfl() {
    mDevice.reset();  // before the assembler that it uses
    wipe(mDataInBuf, sizeof mDataInBuf);
    Singleton& one = singleton();
    const std::lock_guard lock(one.mutex);
    if (one.object != this) return;
    one.object = nullptr;
    one.hasUsers = false;
}

NfcTamaBfl* NfcTamaBfl::Instance() {
    Singleton& one = singleton();
    const std::lock_guard lock(one.mutex);
    try {
        if (one.object == nullptr) one.object = new NfcTamaBfl;
    } catch (const std::bad_alloc&) {
    }
    return one.object;
}

std::shared_ptr<NfcTamaBfl> NfcTamaBfl::acquire() {
    Singleton& one = singleton();
    const std::lock_guard lock(one.mutex);
    std::shared_ptr<NfcTamaBfl> user = one.users.lock();
    if (user) return user;
    if (one.hasUsers) one.object = nullptr;  // its last user has just let go: it is on its way out on another thread
    one.hasUsers = false;
    try {
        NfcTamaBfl* object = Instance();
        if (object == nullptr) return nullptr;
        user = std::shared_ptr<NfcTamaBfl>(object, [](NfcTamaBfl* last) { delete last; });
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    one.users = user;
    one.hasUsers = true;
    return user;
}

BflType NfcTamaBfl::getBflType() { return BflTypeNfcTama; }

short NfcTamaBfl::interfaceOpen(std::uint32_t, std::uint32_t) {
    const OperationLock lock = lockOperation();
    interfaceClose();
    mFrameAssembler.reset();
    mPending = Pending::nothing;
    mDeviceGone = false;

    const std::int32_t result = openDevice();
    if (result >= 0) {
        noteOpened();
        return kBflOpened;
    }
    QVL_LOG(kLogFailure, "NfcTamaBfl::interfaceOpen - OpenInterface failed %d", result);
    return kBflNotOpened;
}

std::int32_t NfcTamaBfl::openDevice() try {
    char* name = reinterpret_cast<char*>(mDeviceName);
    std::uint32_t baudRate = 0;
    if (isSerialName(name)) {
        mFrameAssembler = std::make_shared<TamaFrameAssembler>();
        baudRate = takeBaudRate(name);
    }
    mDevice = makeTamaDevice({name, baudRate, mFrameAssembler.get()});
    return mDevice ? mDevice->OpenInterface(name, 0, 0) : std::int32_t{kDeviceFailed};
} catch (const std::bad_alloc&) {
    return kDeviceFailed;
}

short NfcTamaBfl::interfaceClose() {
    const OperationLock lock = lockOperation();
    if (mDevice) mDevice->CloseInterface();
    mDevice.reset();
    return kBflOk;
}

short NfcTamaBfl::send(std::span<std::uint8_t> command, const char* failure) {
    const short status = tamaCommand(command.data(), static_cast<int>(command.size()));
    if (status != kBflOk) QVL_LOG(kLogFailure, "%s", failure);
    return status;
}

short NfcTamaBfl::checkStatusByte(std::size_t leastLen, const char* failure) {
    if (replyLen() < kStatusReplyLen) return shortReply();
    const std::uint8_t status = mDataInBuf[tama::kData];
    if (status != 0) {
        QVL_LOG(kLogFailure, "%s 0x%02X", failure, status);
        return status;
    }
    return replyLen() < leastLen ? shortReply() : short{kBflOk};
}

short NfcTamaBfl::pcdConfig() {
    const OperationLock lock = lockOperation();
    if (const short status = agreeLinkKey(); status != kBflOk) return status;

    struct Step {
        std::uint8_t command[5];
        std::uint8_t size;
        const char* failure;
    };
    // Field on; time-outs; MaxRtyCOM; retries of ATR, PSL and passive activation: the last bounds every activation.
    Step steps[] = {
        {{kRfConfiguration, 0x01, 0x01}, 3, "NfcTamaBfl::pcdConfig - turn on RF failed, tamaCommand failed!"},
        {{kRfConfiguration, 0x02, 0x00, 0x0B, 0x0C}, 5, "pcdConfig - set various timeing failed, tamaCommand failed!"},
        {{kRfConfiguration, 0x04, 0x05}, 3, "pcdConfig - set MaxRtyCOM failed, tamaCommand failed!"},
        {{kRfConfiguration, 0x05, 0x05, 0x05, 0x05}, 5, "pcdConfig - set MxRty failed, tamaCommand failed!"},
    };
    for (Step& step : steps) {
        if (const short status = send({step.command, step.size}, step.failure); status != kBflOk) return status;
    }
    const short status = setTAMAParam4TCL(false);
    if (status != kBflOk) QVL_LOG(kLogFailure, "pcdConfig - set TAMA Parameter failed, tamaCommand failed!");
    return status;
}

short NfcTamaBfl::setTAMAParam4TCL(bool tcl) {
    std::uint8_t command[] = {kSetParameters, tcl ? kParametersWithRats : kParametersPlain};
    return send(command, "setTAMAParam4TCL - set TAMA Parameter failed, tamaCommand failed!");
}

short NfcTamaBfl::readIdentity(const char* operation) {
    std::uint8_t command[] = {kGetIdentity};
    if (const short status = tamaCommand(command, sizeof command); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s, tamaCommand failed!", operation);
        return status;
    }
    if (mDataInBuf[tama::kData] != 0 && replyLen() >= kStatusReplyLen) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s tamaCommand 0x24 return error code 0x%02X", operation,
                mDataInBuf[tama::kData]);
        return mDataInBuf[tama::kData];
    }
    return replyLen() < kIdentityReplyLen ? shortReply() : short{kBflOk};
}

short NfcTamaBfl::pcdGetSnr(std::uint8_t* snr, std::uint16_t& snrLen) {
    const OperationLock lock = lockOperation();
    snrLen = kSerialNumberSize;
    if (snr == nullptr) return kBflOutOfRange;
    if (const short status = readIdentity("pcdGetSnr"); status != kBflOk) return status;
    std::copy_n(mDataInBuf + kSerialNumber, kSerialNumberSize, snr);
    return kBflOk;
}

short NfcTamaBfl::pcdGetFwVersion(std::uint8_t* version, std::uint16_t& versionLen) {
    const OperationLock lock = lockOperation();
    if (version == nullptr) return kBflOutOfRange;
    if (const short status = readIdentity("pcdGetFwVersion"); status != kBflOk) return status;
    char text[128] = {};
    const std::uint8_t* in = mDataInBuf;
    const int length =
        std::snprintf(text, sizeof text, "NFC Reader/Writer %d.%d.%02X for VID 0x%02X%02X PID 0x%02X%02X", in[kVersion],
                      in[kVersion + 1], in[kVersion + 2], in[kVendor + 1], in[kVendor], in[kProduct + 1], in[kProduct]);
    versionLen = static_cast<std::uint16_t>(length);
    std::memcpy(version, text, static_cast<std::size_t>(length) + 1);
    return kBflOk;
}

short NfcTamaBfl::pcdRfReset(std::uint16_t ms) {
    const OperationLock lock = lockOperation();
    std::uint8_t command[] = {kRfConfiguration, 0x01, 0x00};
    if (const short status = send(command, "NfcTamaBfl::pcdRfReset - turn off RF field, tamaCommand failed!");
        status != kBflOk)
        return status;
    if (ms == 0) {
        QVL_LOG(kLogFailure, "npcdRfReset(): switch trun off ALL LED with duration=0");
        switchLED(0, 0, 0);
        return kBflOk;
    }
    platform::Clock::current().pauseMs(ms);
    command[2] = 0x01;
    return send(command, "NfcTamaBfl::pcdRfReset - turn on RF field, tamaCommand failed!");
}

short NfcTamaBfl::switchLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur) {
    const OperationLock lock = lockOperation();
    constexpr std::uint8_t kLedCodes[] = {0xC0, 0x40, 0x80, 0x00};
    const auto code = static_cast<std::uint8_t>(kLedCodes[std::min<std::uint8_t>(led, 3)] | (ctrl != 0 ? 0x20 : 0) |
                                                std::min(dur, kLongestLedTime));
    std::uint8_t command[] = {kSwitchLed, code};
    if (const short status = send(command, "NfcTamaBfl::switchLED, tamaCommand failed!"); status != kBflOk)
        return status;
    return checkStatusByte(kStatusReplyLen, "NfcTamaBfl::switchLED tamaCommand 0x26 return error code");
}

short NfcTamaBfl::pcdGetAttrib(std::uint8_t* fsci, std::uint8_t* fsdi, std::uint8_t* piccDiv, std::uint8_t* pcdDiv,
                               std::uint8_t* attrib) {
    if (fsci == nullptr || fsdi == nullptr || piccDiv == nullptr || pcdDiv == nullptr || attrib == nullptr)
        return kBflOutOfRange;
    *fsci = 7;
    *fsdi = 7;
    *piccDiv = 0;
    *pcdDiv = 0;
    *attrib = 1;
    return kBflOk;
}

short NfcTamaBfl::pcdSetAttrib(std::uint8_t, std::uint8_t) { return kBflOk; }

short NfcTamaBfl::pcdSetDefaultAttrib() { return kBflOk; }

short NfcTamaBfl::hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey) {
    if (key == nullptr || codedKey == nullptr) return kBflOutOfRange;
    std::copy_n(key, 6, codedKey);
    return kBflOk;
}
