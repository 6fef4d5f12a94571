// Which driver serves the reader: the device scan, what it means for the driver in use, and the helper library that
// knows the instance id of an MF RC500 reader's device.

#include "Clock.h"
#include "DynamicLibrary.h"
#include "Files.h"
#include "Guarded.h"
#include "IniManager.h"
#include "Installation.h"
#include "LogService.h"
#include "Mf500bfl.h"
#include "NfcTamaBfl.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr std::uint32_t kScanIntervalMs = 500;
constexpr const char* kUsbDll = "usbdll";

// Why a scan is asked for.
constexpr int kStartAnew = 0;
constexpr int kDeviceEvent1 = 1;
constexpr int kDeviceEvent2 = 2;

std::atomic<std::uint32_t> gLastScanTick{0};
std::atomic<bool> gUsbEventPending{false};

const std::uint8_t* asName(const char* text) { return reinterpret_cast<const std::uint8_t*>(text); }

}  // namespace

void QvlMf500ReaderImpl::scanUSBDevice(int event) {
    guarded("scanUSBDevice", 0, [this, event] {
        const ReaderLock lock(*this);
        scan(event);
        return 0;
    });
}

void QvlMf500ReaderImpl::scan(int event) {
    if (event == kDeviceEvent1 || event == kDeviceEvent2) gUsbEventPending = true;
    if (event == kStartAnew) gUsbEventPending = false;
    if (event == kScanAfterFailedInit && !gUsbEventPending) return;

    const std::uint32_t now = platform::Clock::current().tick();
    if (mScanned && now - gLastScanTick < kScanIntervalMs) return;
    gLastScanTick = now;
    chooseDriver(mUSBFileIO.scanForDevices());
    mScanned = true;
    if (event == kStartAnew && !initReader()) mCtrl = false;
}

void QvlMf500ReaderImpl::chooseDriver(int scanStatus) {
    QVL_LOG(kLogFailure, "QvlMf500ReaderImpl mUSBFileIO.scanForDevices return %d", scanStatus);
    if (scanStatus != 0) {
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl mUSBFileIO.scanForDevices failed %d", scanStatus);
        return useMf500("");
    }
    const auto& devices = mUSBFileIO.deviceInfo;
    const auto device = std::ranges::find_if(
        devices, [](const USBFileIO::DeviceInfo& info) { return info.path[0] != '\0' && info.present != 0; });
    if (device == devices.end()) {
        QVL_LOG(kLogProgress, "QvlMf500ReaderImpl ------------instantiates NFCTAMABFL using Default Name");
        return useTama("");
    }
    if (device->isTama == 0) return useMf500(device->path);
    QVL_LOG(kLogProgress, "QvlMf500ReaderImpl ------------instantiates NFCTAMABFL");
    useTama(device->path);
}

void QvlMf500ReaderImpl::useTama(const char* path) {
    auto tama = NfcTamaBfl::acquire();
    if (!tama) throw std::bad_alloc();
    if (*path != '\0') tama->setDeviceName(asName(path));
    install(std::move(tama), path);
}

void QvlMf500ReaderImpl::useMf500(const char* path) {
    auto mf500 = std::make_shared<Mf500bfl>();
    if (*path != '\0') mf500->setDeviceName(asName(path));
    install(std::move(mf500), path);
}

// Another driver is closed, and what a closed one says is not to be taken for a tag or for its data.
void QvlMf500ReaderImpl::install(std::shared_ptr<Qvl14443bfl> bfl, const char* path) {
    if (bfl != driver()) mOpened = false;
    mScannedPath = path;
    mTcl->setDriver(std::move(bfl));
}

void QvlMf500ReaderImpl::findUsbDll() {
    const std::string file = platform::dynamicLibraryFileName(kUsbDll);
    const char* installPath = getInstallPath();
    std::string path = installPath != nullptr ? std::string(installPath) + "/bin/" + file : file;
    bool isThere = installPath != nullptr && platform::pathExists(path.c_str());
    // Beside the program only with plain rights: a link to a program with more may lie anywhere.
    if (!isThere && !platform::hasRaisedRights()) {
        const std::string programPath = platform::programDirectory();
        if (!programPath.empty()) path = programPath + "/" + file;
        isThere = !programPath.empty() && platform::pathExists(path.c_str());
    }
    if (!isThere) {
        QVL_LOG(kLogFailure, "Cannot access the usbdll file - %s!\n", path.c_str());
        return;
    }
    mGetCurrentDevInstID =
        reinterpret_cast<GetCurrentDevInstID>(platform::loadSymbol(path.c_str(), "USBLib_GetCurrentDevInstID"));
}
