// Operations of an MF RC500 reader. All have one shape: `ask` sends a command and fetches its reply, the values of the
// reply are read in order, `conclude` takes the key that a scrambling reader appends.

#include "HexText.h"
#include "KeyPool.h"
#include "LogService.h"
#include "Mf500Command.h"
#include "TagSizes.h"

#include <algorithm>
#include <new>

namespace {

constexpr std::uint32_t kDefaultTimeout = 24000;
constexpr std::uint8_t kFastestBaudrate = 3;
constexpr std::uint16_t kLongestVersion = 54;
constexpr std::uint8_t kActivateIdleLoop = 0x49;

bool isSelectCode(std::uint8_t code) { return code == 0x93 || code == 0x95 || code == 0x97; }

}  // namespace

Mf500bfl::Mf500bfl() : mLink(new Link) { seedKeyPool(); }

Mf500bfl::~Mf500bfl() = default;

bool Mf500bfl::assertRange(int value, int low, int high) { return low <= value && value <= high; }

BflType Mf500bfl::getBflType() { return BflTypeMf500; }

short Mf500bfl::interfaceOpen(std::uint32_t, std::uint32_t) {
    const OperationLock lock = lockOperation();
    interfaceClose();
    try {
        mUSB.reset(new USB);
        if (mUSB->OpenInterface() == kBflOk) mProtocol.reset(new USBProtocol(*mUSB));
    } catch (const std::bad_alloc&) {
    }
    if (!mProtocol) {
        mUSB.reset();
        return kBflNotOpened;
    }
    mProtocol->SetRxTimeout(kDefaultTimeout);
    mProtocol->SetTxTimeout(kDefaultTimeout);
    // Nothing comes from before; but a reader that keeps its key may have a new one.
    mLink->isOutOfStep = mLink->isOutOfStep || mLink->isReplyDue;
    mLink->isReplyDue = false;
    noteOpened();
    return kBflOpened;
}

short Mf500bfl::interfaceClose() {
    const OperationLock lock = lockOperation();
    mProtocol.reset();
    if (mUSB) mUSB->CloseInterface();
    mUSB.reset();
    return kBflOk;
}

short Mf500bfl::pcdGetRICVersion(std::uint8_t* version) {
    return run({"pcdGetRICVersion", 0x64, "Mf500bfl::pcdGetRICVersion get param version failed %d"}, {},
               {{version, 5}});
}

short Mf500bfl::pcdGetSnr(std::uint8_t* snr, std::uint16_t& snrLen) {
    snrLen = 4;
    return run({"pcdGetSnr", 0x22, "Mf500bfl::pcdGetSnr get param snr failed %d"}, {}, {{snr, 4}});
}

short Mf500bfl::pcdGetFwVersion(std::uint8_t* version, std::uint16_t& versionLen) {
    const OperationLock lock = lockOperation();
    if (version == nullptr) return kBflOutOfRange;
    const Outcome outcome = ask({"pcdGetFwVersion", 0x63}, {});
    if (!outcome.hasReply) return outcome.status;
    std::uint16_t length = 0;
    if (const short status = mLink->command->GetParam(length); status != kBflOk) {
        QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get len param failed %d\n", status);
        return outcome.status != kBflOk ? outcome.status : status;
    }
    if (length <= kLongestVersion) versionLen = length;
    QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get param  len=%d \n", length);
    const short status = takeRun(version, kLongestVersion, length);
    if (status != kBflOk) {
        QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get version param failed %d  with len %d\n", status, length);
        return conclude({true, outcome.status != kBflOk ? outcome.status : status});
    }
    version[length] = 0;
    QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion doesn't have FirmwareVersion or gets param  version=%s \n",
            reinterpret_cast<const char*>(version));
    return conclude(outcome);
}

short Mf500bfl::pcdRfReset(std::uint16_t ms) {
    const OperationLock lock = lockOperation();
    mLink->isTagAwake = false;
    return run({"pcdRfReset", 0x20}, {ms});
}

short Mf500bfl::pcdGetAttrib(std::uint8_t* fsci, std::uint8_t* fsdi, std::uint8_t* piccDiv, std::uint8_t* pcdDiv,
                             std::uint8_t* attrib) {
    return run({"pcdGetAttrib", 0x47, "Mf500bfl::pcdGetAttrib get parameters failed %d", kLogFailure, true, true}, {},
               {{fsci, 1}, {fsdi, 1}, {piccDiv, 1}, {pcdDiv, 1}, {attrib, 1}});
}

short Mf500bfl::pcdSetAttrib(std::uint8_t dsi, std::uint8_t dri) {
    if (dsi > kFastestBaudrate || dri > kFastestBaudrate) return kBflOutOfRange;
    return run({"pcdSetAttrib", 0x46}, {dsi, dri});
}

short Mf500bfl::pcdSetDefaultAttrib() {
    return run({.name = "pcdSetDefaultAttrib", .code = 0x45, .hasReplyData = false}, {});
}

short Mf500bfl::hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey) {
    return run({"hostCodeKey", 0x16, "Mf500bfl::hostCodeKey get param coded failed %d"}, {{key, 6}}, {{codedKey, 12}});
}

short Mf500bfl::piccRequest(std::uint8_t reqCode, std::uint8_t* atq) {
    const OperationLock lock = lockOperation();
    if (reqCode != 0x26 && reqCode != 0x52) return kBflOutOfRange;
    const short status =
        run({"piccRequest", 0x11, "Mf500bfl::piccRequest get param atq failed %d"}, {reqCode}, {{atq, 2}});
    mLink->isTagAwake = status == kBflOk || isDeviceLost(status);  // a lost reply may be that of a tag
    return status;
}

short Mf500bfl::piccCascAnticoll(std::uint8_t selCode, std::uint8_t bitCount, std::uint8_t* snr) {
    if (!isSelectCode(selCode) || !assertRange(bitCount, 0, 32)) return kBflOutOfRange;
    return run({"piccCascAnticoll", 0x41, "Mf500bfl::piccCascAnticoll get param snr failed %d"},
               {selCode, bitCount, {snr, 4}}, {{snr, 4}});
}

short Mf500bfl::piccCascSelect(std::uint8_t selCode, std::uint8_t* snr, std::uint8_t* sak) {
    const OperationLock lock = lockOperation();
    if (!isSelectCode(selCode)) return kBflOutOfRange;
    const short status = run({"piccCascSelect", 0x42, "Mf500bfl::piccCascSelect get param sak failed %d"},
                             {selCode, {snr, 4}}, {{sak, 1}});
    if (status == kBflOk) mLink->isTagAwake = true;
    return status;
}

short Mf500bfl::piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak) {
    const OperationLock lock = lockOperation();
    const bool wasTagAwake = mLink->isTagAwake;
    std::uint8_t atq[2] = {};
    short status = piccRequest(reqCode, atq);
    if (status != kBflOk && !isDeviceLost(status) && wasTagAwake) status = piccRequest(reqCode, atq);
    if (status == kBflOk) return selectByUid(tag, sak);
    QVL_LOG(kLogFailure, "Tag selection failed: %d", status);
    return status;
}

/// A run that is longer than the room for it counts as one that was not read, but what follows it can be.
short Mf500bfl::takeRun(std::uint8_t* out, std::size_t capacity, std::uint16_t length) {
    SecretBytes<CommandObject::kBufferSize> scrap;
    const bool fits = length <= capacity;
    const short status = mLink->command->GetParam(fits ? out : scrap.data(), length);
    if (status != kBflOk) mLink->isKeyReadable = false;
    return fits ? status : short{kBflBadFrame};
}

short Mf500bfl::takeUid(std::uint8_t* uid, std::uint8_t length) {
    std::uint8_t bytes[255];
    if (const short status = mLink->command->GetParam(bytes, length); status != kBflOk) return status;
    std::copy_n(bytes, std::min<std::size_t>(length, kMostUidBytes), uid);
    return kBflOk;
}

// The messages of the loop end without a line end.
short Mf500bfl::runActivation(const Command& command, std::initializer_list<Param> sent, std::uint8_t* atq,
                              std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len) {
    const OperationLock lock = lockOperation();
    if (atq == nullptr || sak == nullptr || uid == nullptr || uid_len == nullptr) return kBflOutOfRange;
    const bool isLoop = command.code == kActivateIdleLoop;
    const char* const name = command.name;
    const char* const end = isLoop ? "" : "\n";
    const Outcome outcome = ask(command, sent);
    if (!outcome.hasReply) return outcome.status;
    const auto failed = [&](const char* what, short status) {
        QVL_LOG(kLogFailure, "Mf500bfl::%s get %s param failed %d%s", name, what, status, end);
        return outcome.status != kBflOk ? outcome.status : status;
    };
    if (const short status = mLink->command->GetParam(atq, 2); status != kBflOk) return failed("atq", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  atq(Hex)=%x %x ", name, atq[0], atq[1]);
    if (const short status = mLink->command->GetParam(sak, 1); status != kBflOk) return failed("sak", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  sak(Hex)=%x %s", name, *sak, end);
    if (const short status = mLink->command->GetParam(uid_len, 1); status != kBflOk) return failed("uid_len", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  uid_len=%d %s", name, *uid_len, end);
    if (const short status = takeUid(uid, *uid_len); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::%s %s uid param failed %d  with uid_len %d%s", name, isLoop ? "gets" : "get",
                status, *uid_len, end);
        return outcome.status != kBflOk ? outcome.status : status;
    }
    QVL_LOG(kLogProgress, "Mf500bfl::%s doesn't have uid or gets param  uid=%s %s", name,
            HexLine(uid, std::min<std::size_t>(*uid_len, kMostUidBytes)).text(), end);
    mLink->isTagAwake = outcome.status == kBflOk;
    return conclude(outcome);
}

short Mf500bfl::piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                 std::uint8_t* uid_len) {
    if (baudrate > kFastestBaudrate) return kBflOutOfRange;
    return runActivation({"piccActivateIdle", 0x43, nullptr, kLogState}, {baudrate}, atq, sak, uid, uid_len);
}

short Mf500bfl::piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                     std::uint8_t* uid_len, std::uint8_t sec) {
    if (baudrate > kFastestBaudrate) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccActivateIdleLoop with wrong IN param baudrate = %d", baudrate);
        return kBflOutOfRange;
    }
    if (!assertRange(sec, 1, 60)) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccActivateIdleLoop with wrong IN param sec = %d", sec);
        return kBflOutOfRange;
    }
    return runActivation({"piccActivateIdleLoop", kActivateIdleLoop, nullptr, kLogState}, {baudrate, sec}, atq, sak,
                         uid, uid_len);
}

short Mf500bfl::piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                   std::uint8_t uid_len) {
    if (baudrate > kFastestBaudrate) return kBflOutOfRange;
    return run({"piccActivateWakeup", 0x44, "Mf500bfl::piccActivateWakeup get params failed %d", kLogState},
               {baudrate, uid_len, {uid, uid_len}}, {{atq, 2}, {sak, 1}});
}

short Mf500bfl::piccAuthKey(std::uint8_t keyType, std::uint8_t* uid, std::uint8_t* key, std::uint8_t block) {
    if (keyType != 0x60 && keyType != 0x61) return kBflOutOfRange;
    return run({"piccAuthKey", 0x18}, {keyType, {uid, 4}, {key, 12}, block});
}

short Mf500bfl::piccRead(std::uint8_t block, std::uint8_t* data) {
    return run({"piccRead", 0x19, "Mf500bfl::piccRead get param data failed %d"}, {block}, {{data, 16}});
}

short Mf500bfl::piccWrite(std::uint8_t block, std::uint8_t* data) {
    return run({"piccWrite", 0x1A}, {block, {data, 16}});
}

short Mf500bfl::piccValue(std::uint8_t operation, std::uint8_t block, std::uint8_t* value, std::uint8_t transferBlock) {
    if (operation != 0xC0 && operation != 0xC1 && operation != 0xC2) return kBflOutOfRange;
    return run({"piccValue", 0x1B}, {operation, block, {value, 4}, transferBlock});
}

// Goes out and comes back plain, and delivers a new key all the same.
short Mf500bfl::piccExchangeBlock(std::uint8_t* sendData, std::uint16_t sendLen, std::uint8_t* rec_data,
                                  std::uint16_t* rec_bytelen, std::uint8_t append_crc, std::uint32_t timeout) {
    const OperationLock lock = lockOperation();
    if ((sendData == nullptr && sendLen > 0) || rec_data == nullptr || rec_bytelen == nullptr) return kBflOutOfRange;
    const Outcome outcome = ask({"piccExchangeBlock", 0x48, nullptr, kLogFailure, false},
                                {sendLen, append_crc, timeout, {sendData, sendLen}});
    if (!outcome.hasReply) return outcome.status;
    std::uint16_t length = 0;
    short kept = outcome.status;
    if (const short status = mLink->command->GetParam(length); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccExchangeBlock get param rec_bytelen failed %d", status);
        if (kept == kBflOk) kept = status;
        length = 0;
    }
    const std::uint16_t capacity = *rec_bytelen;
    if (length <= capacity) *rec_bytelen = length;
    // The key of a reader that is out of step counts only in a reply that is whole.
    const bool isWhole = mLink->command->GetDataBufferLength() == sizeof length + length + LinkCipher::kKeySize;
    if (isWhole) mLink->isKeyReadable = true;
    if (const short status = takeRun(rec_data, capacity, length); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccExchangeBlock get param rec_data failed %d", status);
        if (kept == kBflOk) kept = status;
    }
    return conclude({true, kept});
}

short Mf500bfl::piccHalt() {
    const OperationLock lock = lockOperation();
    const short status = run({.name = "piccHalt", .code = 0x1D, .hasReplyData = false}, {});
    if (status == kBflOk) mLink->isTagAwake = false;
    return status;
}

short Mf500bfl::switchLED(std::uint8_t, std::uint8_t, std::uint8_t) {
    const OperationLock lock = lockOperation();
    mLink->command->ResetBuffers();
    return kBflOk;
}
