// The life of the reader: construction and destruction of the adaptor, settings, device scans, opening, configuring,
// re-opening after a failure of the device, stopping.

#include "Guarded.h"
#include "HostWait.h"
#include "IniManager.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptControl.h"

#include <memory>
#include <string>

namespace {

constexpr std::uint32_t kDefaultSuspendTimeMs = 30000;
constexpr std::uint8_t kNoLed = 0xFF;
constexpr std::uint16_t kFieldResetMs = 100;
constexpr int kConfigTries = 2;
constexpr std::uint8_t kCardRepetitions = 1;
constexpr int kInstanceIdSize = 256;

constexpr const char* yesNo(bool value) { return value ? "true" : "false"; }

}  // namespace

QvlMf500ReaderImpl::QvlMf500ReaderImpl(QVLReaderServiceIntf* service)
    : mTcl(std::make_unique<QvlTcl>()), mReader(*mTcl), mSuspendTime(kDefaultSuspendTimeMs),
      mDefaultSuspendTime(kDefaultSuspendTimeMs), mService(service), mLED(kNoLed), mDur(kNoLed) {
    if (const auto found = mScan.run(DeviceScan::kDeviceEvent1)) use(*found);
    mGetCurrentDevInstID = mFound.findInstanceHelper();
}

QvlMf500ReaderImpl::~QvlMf500ReaderImpl() {
    if (mGeneration != platform::processGeneration()) return;  // a forked child has the memory and not the reader
    const platform::CancellationOff uncancelled;
    endTagPrompt(this);
    turnOffAndClose("Desctruter mLED=%d ctrl=%s dur=%d\nAfter      mLED=ff ctrl=false dur=0");
}

void QvlMf500ReaderImpl::scanUSBDevice(int event) {
    guarded("scanUSBDevice", 0, [this, event] {
        const ReaderLock lock(mReader);
        const auto found = mScan.run(event);
        if (!found) return 0;
        const bool isReplaced = use(*found);
        if (event != DeviceScan::kStartAnew) return 0;
        if (!initReader())
            mCtrl = false;
        else if (isReplaced)
            tellHost(true);
        return 0;
    });
}

// The reader that is in use stays, with its sessions. Another driver is closed, and what a closed one says is not to be
// taken for a tag or for its data. @return true when the host was told that a ready reader is not there any more.
bool QvlMf500ReaderImpl::use(const FoundReader& found) {
    if (driver() && found == mFound) return false;
    const bool wasReady = mReader.isReady();
    auto bfl = found.makeDriver();
    if (bfl != driver()) mOpenShare.reset();
    mFound = found;
    mReader.mOpened = false;
    mReader.mLoss = ReaderState::Loss::none;
    mTcl->setDriver(std::move(bfl));
    if (wasReady) tellHost(false);
    return wasReady;
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
        const WatchedLink link(mReader, WatchedLink::Purpose::start);
        if (!openAndConfigure()) return false;
        restoreLeds();
        return true;
    });
}

bool QvlMf500ReaderImpl::openAndConfigure() {
    const ReaderLock lock(mReader);
    mReader.mInitialised = false;
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
    mReader.mOpened = true;
    mReader.mInitialised = true;
    ++mReader.mOpenings;
    mReader.mLoss = ReaderState::Loss::none;
    return true;
}

bool QvlMf500ReaderImpl::interfaceOpened(Qvl14443bfl& bfl) {
    const std::string port = mFound.serialPort();
    if (hostWait() != nullptr && !port.empty() && !hostWait()->mayTryPort(port.c_str(), mFound.isNamed())) return false;
    // Opening cuts the baud rate off a serial name; the scan's path brings it back.
    if (!mFound.path.empty()) bfl.setDeviceName(reinterpret_cast<const std::uint8_t*>(mFound.path.c_str()));
    const short status = bfl.interfaceOpen(49, 0);
    if (status == kBflOpened) {
        mOpenShare = bfl.openShare();
        return true;
    }
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
    mOpenShare.reset();
    if (!bfl.isOpenForOthers()) bfl.interfaceClose();
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
        const ReaderLock lock(mReader);
        turnOffAndClose("stopReader()  mLED=%d ctrl=%s dur=%d\nAfter      mLED=ff ctrl=false dur=0");
        mReader.mInitialised = false;
        mReader.mLoss = ReaderState::Loss::none;
        setDeviceInstanceID(nullptr);
        return true;
    });
}

// Field and interface stay on while another adaptor of this process has the same driver open.
void QvlMf500ReaderImpl::turnOffAndClose(const char* logged) {
    const auto bfl = driver();
    const bool wasOpen = mOpenShare != nullptr;
    mOpenShare.reset();
    const bool isShared = bfl->isOpenForOthers();
    if (mReader.mInitialised) {
        if (wasOpen && !isShared) bfl->pcdRfReset(0);
        if (logWanted(kLogFailure)) {
            char text[128];
            std::snprintf(text, sizeof text, logged, mLED.load(), yesNo(mCtrl), mDur.load());
            QVL_LOG(kLogFailure, "%s", text);
        }
        mLED = kNoLed;
        mCtrl = false;
        mDur = kNoLed;
    }
    if (!isShared) bfl->interfaceClose();
}

// Whoever is asked to do something opens a reader anew that an earlier operation has lost. @return whether it is ready.
bool QvlMf500ReaderImpl::revive() {
    using Loss = ReaderState::Loss;
    const auto isLost = [this] { return mReader.mLoss == Loss::noted || mReader.mLoss == Loss::told; };
    if (isLost()) {
        const ReaderLock lock(mReader);
        if (isLost()) reopen(kBflDeviceFailed, mReader.mOpenings);
    }
    return mReader.isReady();
}

// `opening` is the one in which the reader was lost: while this thread waited, another one may have opened it anew.
void QvlMf500ReaderImpl::reopen(int bflStatus, unsigned opening) {
    using Loss = ReaderState::Loss;
    const ReaderLock lock(mReader);
    if (opening != mReader.mOpenings) return;
    QVL_LOG(kLogFailure, "interface encountering problems %d. Trying to reopen", bflStatus);
    // LED 3 is a switch: its command goes only to a reader that has come up dark.
    if (driver()->isDeviceGone()) mCtrl = false;
    driver()->interfaceClose();
    mOpenShare.reset();
    mReader.mInitialised = false;  // a host that calls back now must not meet the closed device again
    if (mReader.mLoss.exchange(Loss::beingReopened) != Loss::told) tellHost(false);
    const bool isReady = initReader();
    mReader.mLoss = isReady ? Loss::none : Loss::told;
    if (!isReady) return;
    QVL_LOG(kLogProgress, "QvlMf500ReaderImpl::getTagId() succeded initReader()");
    tellHost(true);
}
