// What the reader tells of itself, and its LEDs. None of these takes the reader lock, unless a lost reader has to be
// opened first: they are short, and the driver keeps one command whole by itself.

#include "Guarded.h"
#include "QvlMf500ReaderImpl.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kSwitchLed = 3;  // an LED that is a switch

}  // namespace

/// Not of a reader that is lost: its driver is closed, and a closed one may say 0 to everything.
template <typename Ask>
int QvlMf500ReaderImpl::askReader(Ask ask) {
    revive();
    if (mReader.mLoss == ReaderState::Loss::told) return kReaderFailed;
    const WatchedLink link(mReader);
    return ask() == kBflOk ? kOk : kReaderFailed;
}

int QvlMf500ReaderImpl::getReaderId(std::uint8_t* id, std::uint16_t& idLen) {
    if (id == nullptr) return kReaderFailed;
    constexpr int kShortestId = 4;
    std::fill_n(id, kShortestId, std::uint8_t{0});  // a closed driver may say 0 and fill nothing
    idLen = 0;
    return guarded("getReaderId", int{kReaderFailed},
                   [&] { return askReader([&] { return driver()->pcdGetSnr(id, idLen); }); });
}

int QvlMf500ReaderImpl::getReaderFwVersion(std::uint8_t* version, std::uint16_t& versionLen) {
    if (version == nullptr) return kReaderFailed;
    version[0] = '\0';
    versionLen = 0;
    return guarded("getReaderFwVersion", int{kReaderFailed},
                   [&] { return askReader([&] { return driver()->pcdGetFwVersion(version, versionLen); }); });
}

int QvlMf500ReaderImpl::switchReaderLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur) {
    return guarded("switchReaderLED", int{kReaderFailed}, [&]() -> int {
        if (dur == 0) {
            if (led == 0 && ctrl == 0)
                ctrl = 1;
            else if (led != mLED)
                return kReaderFailed;
        }
        if (led == kSwitchLed && ctrl > 1) return kReaderFailed;
        return askReader([&]() -> short {
            if (led == kSwitchLed) {
                if ((ctrl == 1) == mCtrl) return kBflOk;
                ctrl = 1;
                dur = mDur;
            }
            if (const short status = driver()->switchLED(led, ctrl, dur); status != kBflOk) return status;
            if (led == kSwitchLed) {
                mCtrl = !mCtrl;
            } else {
                mLED = led;
                mDur = dur;
            }
            return kBflOk;
        });
    });
}
