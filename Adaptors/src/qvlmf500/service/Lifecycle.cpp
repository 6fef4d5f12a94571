// The life of the reader: construction and destruction of the adaptor, settings, opening, configuring, re-opening after
// a failure of the device, stopping.

#include "Guarded.h"
#include "IniManager.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "TagPromptControl.h"

#include <memory>

namespace {

constexpr const char* kReaderMutexName = "QUORVELREADER_MUTEX";
constexpr std::uint32_t kDefaultSuspendTimeMs = 30000;
constexpr std::uint8_t kNoLed = 0xFF;
constexpr std::uint16_t kFieldResetMs = 100;
constexpr int kConfigTries = 2;
constexpr std::uint8_t kCardRepetitions = 1;
constexpr int kInstanceIdSize = 256;

constexpr const char* yesNo(bool value) { return value ? "true" : "false"; }

std::unique_ptr<platform::NamedMutex> makeReaderMutex() {
    try {
        return std::make_unique<platform::NamedMutex>(kReaderMutexName);
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace

QvlMf500ReaderImpl::QvlMf500ReaderImpl(QVLReaderServiceIntf* service)
    : mReaderMutex(makeReaderMutex()), mSuspendTime(kDefaultSuspendTimeMs), mDefaultSuspendTime(kDefaultSuspendTimeMs),
      mService(service), mLED(kNoLed), mDur(kNoLed), mTcl(std::make_unique<QvlTcl>()) {
    scan(1);
    if (driver()->getBflType() == BflTypeMf500) findUsbDll();
}

QvlMf500ReaderImpl::~QvlMf500ReaderImpl() {
    endTagPrompt();
    const auto bfl = driver();
    if (mInitialised) turnOff(*bfl, "Desctruter mLED=%d ctrl=%s dur=%d\nAfter      mLED=ff ctrl=false dur=0");
    bfl->interfaceClose();
}

const char* QvlMf500ReaderImpl::getAdaptorName() { return "QVLMF500"; }

void QvlMf500ReaderImpl::tellHost(bool ready) noexcept {
    if (mService == nullptr) return;
    try {
        mService->readerStateChanged(ready);
    } catch (...) {
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::readerStateChanged(%s) of the host failed", yesNo(ready));
    }
}

void QvlMf500ReaderImpl::loadReaderConfig() {
    const IniEntry section = iniLookup(getIniRoot(), "READER");
    if (section.type == INI_TABLE) {
        const IniEntry waitTime = iniLookup(section.node, "WAITTIME");
        mSuspendTime = waitTime.type == INI_VALUE ? iniNumber(waitTime.text) : kDefaultSuspendTimeMs;
        const IniEntry tagPrompt = iniLookup(section.node, "TAGPROMPT");
        if (tagPrompt.type == INI_VALUE) {
            const std::uint32_t wanted = iniNumber(tagPrompt.text);
            if (wanted <= 1) mTagPrompt = wanted == 1;
        }
    }
    mDefaultSuspendTime = mSuspendTime.load();
}

bool QvlMf500ReaderImpl::initReader() {
    return guarded("initReader", false, [this] {
        if (!openAndConfigure()) return false;
        restoreLeds();
        return true;
    });
}

bool QvlMf500ReaderImpl::openAndConfigure() {
    const ReaderLock lock(*this);
    mInitialised = false;
    const auto bfl = driver();
    if (!interfaceOpened(*bfl)) return false;
    QVL_LOG(kLogState, "QVLReader initialization: interface successfully opened.");
    if (mGetCurrentDevInstID != nullptr) {
        char id[kInstanceIdSize] = {};
        std::uint16_t length = 0;
        if (mGetCurrentDevInstID(id, kInstanceIdSize - 1, &length) == 0) {
            id[kInstanceIdSize - 1] = '\0';
            setDeviceInstanceID(id);
        }
    }
    if (!configured(*bfl)) return false;
    QVL_LOG(kLogState, "QVLReader initialization: Configuration done.");
    bfl->pcdRfReset(kFieldResetMs);
    mTcl->reset(kCardRepetitions);
    mOpened = true;
    mInitialised = true;
    return true;
}

bool QvlMf500ReaderImpl::interfaceOpened(Qvl14443bfl& bfl) {
    // Opening cuts the baud rate off a serial name; the scan's path brings it back.
    if (!mScannedPath.empty()) bfl.setDeviceName(reinterpret_cast<const std::uint8_t*>(mScannedPath.c_str()));
    const short status = bfl.interfaceOpen(49, 0);
    if (status == kBflOpened) return true;
    if (status == kBflNotOpened)
        QVL_LOG(kLogFailure, "QVLReader initialization failed: wrong interface.");
    else
        QVL_LOG(kLogFailure, "QVLReader initialization failed: inteface not open. %d", status);
    return false;
}

bool QvlMf500ReaderImpl::configured(Qvl14443bfl& bfl) {
    short status = kBflOk;
    for (int tries = 0; tries < kConfigTries; ++tries) {
        status = bfl.pcdConfig();
        if (status == kBflOk) return true;
    }
    QVL_LOG(kLogFailure, "QVLReader initialization failed: Configuration error %d", status);
    bfl.interfaceClose();
    return false;
}

void QvlMf500ReaderImpl::restoreLeds() {
    QVL_LOG(kLogFailure, "initReader() Turn on the LED:   mLED=%d ctrl=%s dur=%d", mLED.load(), yesNo(mCtrl),
            mDur.load());
    if (mLED == kNoLed && mDur == kNoLed) {
        switchReaderLED(1, 1, 1);
        mLED = 1;
        mDur = 1;
    } else {
        switchReaderLED(mLED, 1, mDur);
    }
    switchReaderLED(3, 1, 1);
    mCtrl = true;
    QVL_LOG(kLogFailure, "\nAfter      mLED=%d ctrl=%s dur=%d", mLED.load(), yesNo(true), mDur.load());
}

bool QvlMf500ReaderImpl::stopReader() {
    return guarded("stopReader", true, [this] {
        const ReaderLock lock(*this);
        const auto bfl = driver();
        if (mInitialised) turnOff(*bfl, "stopReader()  mLED=%d ctrl=%s dur=%d\nAfter      mLED=ff ctrl=false dur=0");
        mInitialised = false;
        bfl->interfaceClose();
        setDeviceInstanceID(nullptr);
        return true;
    });
}

void QvlMf500ReaderImpl::turnOff(Qvl14443bfl& bfl, const char* logged) {
    bfl.pcdRfReset(0);
    if (logWanted(kLogFailure)) {
        char text[128];
        std::snprintf(text, sizeof text, logged, mLED.load(), yesNo(mCtrl), mDur.load());
        QVL_LOG(kLogFailure, "%s", text);
    }
    mLED = kNoLed;
    mCtrl = false;
    mDur = kNoLed;
}

void QvlMf500ReaderImpl::reopen(int bflStatus) {
    QVL_LOG(kLogFailure, "interface encountering problems %d. Trying to reopen", bflStatus);
    const ReaderLock lock(*this);  // not under an operation of another thread
    driver()->interfaceClose();
    mInitialised = false;  // a host that calls back now must not meet the closed device again
    tellHost(false);
    if (!initReader()) return;
    QVL_LOG(kLogProgress, "QvlMf500ReaderImpl::getTagId() succeded initReader()");
    tellHost(true);
}
