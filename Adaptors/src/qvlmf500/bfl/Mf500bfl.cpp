// Operations of an MF RC500 reader. All have one shape: `ask` sends a command and fetches its reply, the values of the
// reply are read in order, `conclude` takes the key that a scrambling reader appends.

#include "Mf500bfl.h"

#include "CipherCommandObject.h"
#include "HexText.h"
#include "KeyPool.h"
#include "LogService.h"

#include <algorithm>
#include <new>

namespace {

constexpr std::uint32_t kCommandTimeout = 6000;
constexpr std::uint32_t kDefaultTimeout = 24000;
constexpr std::uint8_t kKeySize = 16;
constexpr std::uint8_t kFastestBaudrate = 3;
constexpr std::size_t kMostUidBytes = 10;
constexpr std::uint16_t kLongestVersion = 54;
constexpr std::uint8_t kActivateIdleLoop = 0x49;

void noteClearLink(const char* reason) { QVL_LOG(kLogState, "Mf500bfl: link in the clear, %s", reason); }

bool isSelectCode(std::uint8_t code) { return code == 0x93 || code == 0x95 || code == 0x97; }

}  // namespace

/// What is fixed of a command. The failures are logged with one status each.
struct Mf500bfl::Command {
    const char* name;
    std::uint8_t code;
    const char* replyFailure = nullptr;
    int failedLevel = kLogFailure;
    bool isScrambled = true;
    bool tellsNoMore = false;  ///< Whatever the reader's status, it becomes 1.
};

/// A parameter: number of 1, 2 or 4 bytes, or a run of bytes.
struct Mf500bfl::Param {
    Param(std::uint8_t value) : number(value), size(1) {}
    Param(std::uint16_t value) : number(value), size(2) {}
    Param(std::uint32_t value) : number(value), size(4) {}
    Param(const std::uint8_t* data, std::uint32_t length) : isRun(true), bytes(data), size(length) {}

    bool isMissing() const { return isRun && bytes == nullptr && size > 0; }
    short addTo(CommandObject& command) const {
        if (isRun) return size > 0 ? command.AddParam(bytes, size) : short{kBflOk};
        if (size == 1) return command.AddParam(static_cast<std::uint8_t>(number));
        return size == 2 ? command.AddParam(static_cast<std::uint16_t>(number)) : command.AddParam(number);
    }

    bool isRun = false;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t number = 0;
    std::uint32_t size;
};

/// A value of the reply and where it goes.
struct Mf500bfl::Field {
    std::uint8_t* out;
    std::uint32_t length;
};

Mf500bfl::Mf500bfl() : mCommand(new CipherCommandObject) { seedKeyPool(); }

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

/// `sent` becomes false where nothing came back; the result is then the link's, 0 on a closed driver.
short Mf500bfl::sendCommand(const char* operation, bool& sent) {
    short status = kBflOk;
    sent = false;
    if (mProtocol && !mayAsk()) {
        status = kBflDeviceTimedOut;
    } else if (mProtocol && isOutOfStep()) {
        status = kBflDeviceFailed;
    } else if (mProtocol) {
        status = mProtocol->SendCommand(*mCommand, kCommandTimeout, kCommandTimeout);
        sent = status == kBflOk;
        if (sent)
            noteAnswer();
        else if (status == kBflDeviceTimedOut)
            noteTimeOut();
        else
            noteFailure(status == kBflDeviceFailed);
        mIsKeyDue = !sent || mCommand->GetDataBufferLength() > 0;
    }
    if (!sent) QVL_LOG(kLogFailure, "Mf500bfl::%s send command failed %d", operation, status);
    return sent ? static_cast<short>(mCommand->GetStatus()) : status;
}

Mf500bfl::Outcome Mf500bfl::ask(const Command& command, std::initializer_list<Param> sent) {
    mCommand->ResetBuffers();
    mCommand->SetCommand(command.code);
    for (const Param& param : sent)
        if (param.addTo(*mCommand) != kBflOk) return {false, kBflOutOfRange};
    if (command.isScrambled) mCommand->encryptCommand();
    bool hasReply = false;
    short status = sendCommand(command.name, hasReply);
    if (!hasReply) return {false, status};
    if (status != kBflOk && command.tellsNoMore) status = 1;
    if (status != kBflOk) QVL_LOG(command.failedLevel, "Mf500bfl::%s failed %d", command.name, status);
    if (command.isScrambled) mCommand->decryptResponse();
    return {true, status};
}

short Mf500bfl::conclude(const Outcome& outcome) {
    processSecretKey();
    return outcome.status;
}

void Mf500bfl::processSecretKey() {
    if (!mIsQvlDevice) return;
    KeyValue key;
    if (mCommand->GetParam(key.data(), kKeySize) != kBflOk) return;
    useKey(key.data());
    mIsKeyDue = false;
}

void Mf500bfl::useKey(const std::uint8_t* key) {
    mCommand->setKey(key);
    if (!mCommand->hasKey()) noteClearLink("the reader gave out a zero key");
}

// Under another key the reader would find other parameters in a command: a write could hit any block, with any bytes.
bool Mf500bfl::isOutOfStep() const { return mIsQvlDevice && mIsKeyDue && mCommand->hasKey(); }

short Mf500bfl::run(const Command& command, std::initializer_list<Param> sent, std::initializer_list<Field> reply) {
    const OperationLock lock = lockOperation();
    const auto missing = [](const Field& field) { return field.out == nullptr; };
    if (std::ranges::any_of(sent, &Param::isMissing) || std::ranges::any_of(reply, missing)) return kBflOutOfRange;
    const Outcome outcome = ask(command, sent);
    if (!outcome.hasReply) return outcome.status;
    for (const Field& field : reply)
        if (const short status = mCommand->GetParam(field.out, field.length); status != kBflOk) {
            QVL_LOG(kLogFailure, command.replyFailure, status);
            return outcome.status != kBflOk ? outcome.status : status;
        }
    return conclude(outcome);
}

short Mf500bfl::pcdConfig() {
    const OperationLock lock = lockOperation();
    KeyValue challenge;
    nextKeyPoolValue(challenge.data());
    mCommand->setKey(nullptr);
    mIsQvlDevice = false;
    const Outcome outcome = ask({"pcdConfig", 0x10, nullptr, kLogFailure, false}, {{challenge.data(), kKeySize}});
    if (!outcome.hasReply || outcome.status != kBflOk) return outcome.status;
    short status = kBflOk;
    if (mCommand->GetDataBufferLength() != 0)
        status = agreeKey(rotateKey(challenge.data()).data());
    else
        noteClearLink("the reader does not take part in the key agreement");
    QVL_LOG(kLogProgress, "Mf500bfl::pcdConfig PCD Config OK  status = %d", status);
    return status;
}

/// The reader has to know what follows from the challenge.
short Mf500bfl::agreeKey(const std::uint8_t* expected) {
    mCommand->setKey(expected);
    mCommand->decryptResponse();
    KeyValue confirmation, sessionKey;
    std::uint8_t unused[4];
    short status = mCommand->GetParam(confirmation.data(), kKeySize);
    if (status == kBflOk) status = mCommand->GetParam(unused, sizeof unused);
    if (status == kBflOk) status = mCommand->GetParam(sessionKey.data(), kKeySize);
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::pcdConfig get param failed %d", status);
        return status;
    }
    if (!std::equal(confirmation.begin(), confirmation.end(), expected)) return kBflOutOfRange;
    return pcdConfig2(confirmation.data(), sessionKey.data());
}

short Mf500bfl::pcdConfig2(std::uint8_t* confirmation, std::uint8_t* sessionKey) {
    const OperationLock lock = lockOperation();
    if (confirmation == nullptr || sessionKey == nullptr) return kBflOutOfRange;
    mCommand->ResetBuffers();
    useKey(sessionKey);
    mCommand->SetCommand(0x09);
    mCommand->AddParam(confirmation, kKeySize);
    mCommand->encryptCommand();
    bool hasReply = false;
    const short status = sendCommand("pcdConfig2", hasReply);
    if (hasReply && status != kBflOk) QVL_LOG(kLogFailure, "Mf500bfl::pcdConfig2 failed %d", status);
    mIsQvlDevice = true;
    mIsKeyDue = !hasReply;
    return status;
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
    if (const short status = mCommand->GetParam(length); status != kBflOk) {
        QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get len param failed %d\n", status);
        return outcome.status != kBflOk ? outcome.status : status;
    }
    versionLen = length;
    QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get param  len=%d \n", length);
    // A text that the host's buffer cannot hold counts as none that was read.
    const short status = length > kLongestVersion ? short{kBflBadFrame} : mCommand->GetParam(version, length);
    if (status != kBflOk) {
        QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion get version param failed %d  with len %d\n", status, length);
        return outcome.status != kBflOk ? outcome.status : status;
    }
    version[length] = 0;
    QVL_LOG(kLogProgress, "Mf500bfl::pcdGetFwVersion doesn't have FirmwareVersion or gets param  version=%s \n",
            reinterpret_cast<const char*>(version));
    return conclude(outcome);
}

short Mf500bfl::pcdRfReset(std::uint16_t ms) {
    mIsTagAwake = false;
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

short Mf500bfl::pcdSetDefaultAttrib() { return run({"pcdSetDefaultAttrib", 0x45}, {}); }

short Mf500bfl::hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey) {
    return run({"hostCodeKey", 0x16, "Mf500bfl::hostCodeKey get param coded failed %d"}, {{key, 6}}, {{codedKey, 12}});
}

short Mf500bfl::piccRequest(std::uint8_t reqCode, std::uint8_t* atq) {
    if (reqCode != 0x26 && reqCode != 0x52) return kBflOutOfRange;
    const short status =
        run({"piccRequest", 0x11, "Mf500bfl::piccRequest get param atq failed %d"}, {reqCode}, {{atq, 2}});
    mIsTagAwake = status == kBflOk;
    return status;
}

short Mf500bfl::piccCascAnticoll(std::uint8_t selCode, std::uint8_t bitCount, std::uint8_t* snr) {
    if (!isSelectCode(selCode) || !assertRange(bitCount, 0, 32)) return kBflOutOfRange;
    return run({"piccCascAnticoll", 0x41, "Mf500bfl::piccCascAnticoll get param snr failed %d"},
               {selCode, bitCount, {snr, 4}}, {{snr, 4}});
}

short Mf500bfl::piccCascSelect(std::uint8_t selCode, std::uint8_t* snr, std::uint8_t* sak) {
    if (!isSelectCode(selCode)) return kBflOutOfRange;
    const short status = run({"piccCascSelect", 0x42, "Mf500bfl::piccCascSelect get param sak failed %d"},
                             {selCode, {snr, 4}}, {{sak, 1}});
    if (status == kBflOk) mIsTagAwake = true;
    return status;
}

short Mf500bfl::piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak) {
    const OperationLock lock = lockOperation();
    const bool wasTagAwake = mIsTagAwake;
    std::uint8_t atq[2] = {};
    short status = piccRequest(reqCode, atq);
    if (status != kBflOk && !isDeviceLost(status) && wasTagAwake) status = piccRequest(reqCode, atq);
    if (status == kBflOk) return selectByUid(tag, sak);
    QVL_LOG(kLogFailure, "Tag selection failed: %d", status);
    return status;
}

short Mf500bfl::takeUid(std::uint8_t* uid, std::uint8_t length) {
    std::uint8_t bytes[255];
    if (const short status = mCommand->GetParam(bytes, length); status != kBflOk) return status;
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
    if (const short status = mCommand->GetParam(atq, 2); status != kBflOk) return failed("atq", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  atq(Hex)=%x %x ", name, atq[0], atq[1]);
    if (const short status = mCommand->GetParam(sak, 1); status != kBflOk) return failed("sak", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  sak(Hex)=%x %s", name, *sak, end);
    if (const short status = mCommand->GetParam(uid_len, 1); status != kBflOk) return failed("uid_len", status);
    QVL_LOG(kLogProgress, "Mf500bfl::%s get param  uid_len=%d %s", name, *uid_len, end);
    if (const short status = takeUid(uid, *uid_len); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::%s %s uid param failed %d  with uid_len %d%s", name, isLoop ? "gets" : "get",
                status, *uid_len, end);
        return outcome.status != kBflOk ? outcome.status : status;
    }
    QVL_LOG(kLogProgress, "Mf500bfl::%s doesn't have uid or gets param  uid=%s %s", name,
            HexLine(uid, std::min<std::size_t>(*uid_len, kMostUidBytes)).text(), end);
    mIsTagAwake = outcome.status == kBflOk;
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
    const std::uint16_t capacity = *rec_bytelen;
    std::uint16_t length = 0;
    short kept = outcome.status;
    if (const short status = mCommand->GetParam(length); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccExchangeBlock get param rec_bytelen failed %d", status);
        if (kept == kBflOk) kept = status;
        length = 0;
    }
    *rec_bytelen = length;
    const short status = length > capacity ? short{kBflBadFrame} : mCommand->GetParam(rec_data, length);
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::piccExchangeBlock get param rec_data failed %d", status);
        return kept != kBflOk ? kept : status;
    }
    return conclude({true, kept});
}

short Mf500bfl::piccHalt() {
    const short status = run({"piccHalt", 0x1D}, {});
    if (status == kBflOk) mIsTagAwake = false;
    return status;
}

short Mf500bfl::switchLED(std::uint8_t, std::uint8_t, std::uint8_t) {
    const OperationLock lock = lockOperation();
    mCommand->ResetBuffers();
    return kBflOk;
}
