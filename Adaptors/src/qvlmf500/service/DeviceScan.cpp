// Which driver serves the reader: the device scan, what it means for the driver in use, and the helper library that
// knows the instance id of an MF RC500 reader's device.

#include "DeviceScan.h"

#include "Clock.h"
#include "Devices.h"
#include "DynamicLibrary.h"
#include "Files.h"
#include "IniManager.h"
#include "Installation.h"
#include "LogService.h"
#include "Mf500bfl.h"
#include "NfcTamaBfl.h"

#include <algorithm>
#include <new>

namespace {

constexpr std::uint32_t kScanIntervalMs = 500;
constexpr const char* kUsbDll = "usbdll";

std::atomic<std::uint32_t> gLastScanTick{0};
std::atomic<bool> gUsbEventPending{false};

GetCurrentDevInstID loadInstanceHelper() {
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
        return nullptr;
    }
    return reinterpret_cast<GetCurrentDevInstID>(platform::loadSymbol(path.c_str(), "USBLib_GetCurrentDevInstID"));
}

}  // namespace

std::string FoundReader::serialPort() const { return path.starts_with("COM") ? path.substr(0, path.find(';')) : ""; }

bool FoundReader::isNamed() const {
    if (iniLookup(iniLookup(getIniRoot(), "READER").node, "SERIAL_PORT").type == INI_VALUE) return true;
    return platform::serialPortPath(serialPort().c_str()).starts_with(platform::deviceRoot() + '/');
}

std::shared_ptr<Qvl14443bfl> FoundReader::makeDriver() const {
    std::shared_ptr<Qvl14443bfl> driver;
    if (kind == BflTypeNfcTama)
        driver = NfcTamaBfl::acquire();
    else
        driver = std::make_shared<Mf500bfl>();
    if (!driver) throw std::bad_alloc();
    if (!path.empty()) driver->setDeviceName(reinterpret_cast<const std::uint8_t*>(path.c_str()));
    return driver;
}

GetCurrentDevInstID FoundReader::findInstanceHelper() const {
    return kind == BflTypeMf500 ? loadInstanceHelper() : nullptr;
}

std::optional<FoundReader> DeviceScan::run(int event) {
    if (event == kDeviceEvent1 || event == kDeviceEvent2) gUsbEventPending = true;
    if (event == kStartAnew) gUsbEventPending = false;
    if (event == kAfterFailedInit && !gUsbEventPending) return std::nullopt;

    const std::uint32_t now = platform::Clock::current().tick();
    if (mHasRun && now - gLastScanTick < kScanIntervalMs) return std::nullopt;
    gLastScanTick = now;
    mHasRun = true;
    return choose(mUSBFileIO.scanForDevices());
}

FoundReader DeviceScan::choose(int status) const {
    QVL_LOG(kLogFailure, "QvlMf500ReaderImpl mUSBFileIO.scanForDevices return %d", status);
    if (status != 0) {
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl mUSBFileIO.scanForDevices failed %d", status);
        return {};
    }
    const auto& devices = mUSBFileIO.deviceInfo;
    const auto device = std::ranges::find_if(
        devices, [](const USBFileIO::DeviceInfo& info) { return info.path[0] != '\0' && info.present != 0; });
    if (device == devices.end()) {
        QVL_LOG(kLogProgress, "QvlMf500ReaderImpl ------------instantiates NFCTAMABFL using Default Name");
        return {BflTypeNfcTama, ""};
    }
    if (device->isTama == 0) return {BflTypeMf500, device->path};
    QVL_LOG(kLogProgress, "QvlMf500ReaderImpl ------------instantiates NFCTAMABFL");
    return {BflTypeNfcTama, device->path};
}
