#include "USBFileIO.h"

#include "Devices.h"
#include "IniManager.h"
#include "LogService.h"
#include "ReaderClasses.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kDefaultPort = 1;
constexpr std::uint32_t kDefaultBaudRate = 9600;
constexpr std::size_t kLongestInstanceId = 255;

template <std::size_t N>
void copyText(char (&to)[N], const char* from, std::size_t most) {
    const std::size_t length = std::min({std::strlen(from), most, N - 1});
    std::memcpy(to, from, length);
    to[length] = '\0';
}

IniEntry readerEntry(const char* key) { return iniLookup(iniLookup(getIniRoot(), "READER").node, key); }

bool wantsSerialPort() {
    const IniEntry entry = readerEntry("SERIAL_FALLBACK");
    return entry.type != INI_VALUE || std::strcmp(entry.text, "0") != 0;
}

std::uint32_t readerSetting(const char* key, std::uint32_t fallback) {
    const IniEntry entry = readerEntry(key);
    if (entry.type != INI_VALUE) return fallback;
    const std::uint32_t value = std::min<std::uint32_t>(iniNumber(entry.text), INT32_MAX);
    if (value > 0) return value;
    QVL_LOG(kLogFailure, "QVLReader.ini : the value of SERIALPORT is wrong");
    return fallback;
}

}  // namespace

USBFileIO::USBFileIO() {
    std::memset(deviceInfo.data(), 0, sizeof deviceInfo);
    for (std::size_t i = 0; i < pGuid.size(); ++i)
        pGuid[i] = kReaderClasses[i].guid;
}

std::size_t USBFileIO::nextIndex() const {
    std::size_t next = kEntries;
    while (next > 0 && deviceInfo[next - 1].path[0] == '\0')
        --next;
    return next;
}

USBFileIO::DeviceInfo* USBFileIO::find(const char* path) {
    const auto entry =
        std::ranges::find_if(deviceInfo, [path](const DeviceInfo& info) { return std::strcmp(info.path, path) == 0; });
    return entry == deviceInfo.end() ? nullptr : &*entry;
}

int USBFileIO::scanForDevices() {
    for (DeviceInfo& info : deviceInfo)
        info.present = 0;
    const std::size_t next = nextIndex();
    bool found = false;
    for (std::size_t g = 0; g < pGuid.size() && !found; ++g) {
        int error = 0;
        QVL_LOG(kLogScan, "  scanForDevices tries pGuid[%d]", static_cast<int>(g));
        found = scanClass(g, next, error);
        if (error != 0) return error;
    }
    if (!found && wantsSerialPort()) takeSerialPort(next);
    QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - return success");
    return 0;
}

bool USBFileIO::scanClass(std::size_t classIndex, std::size_t next, int& error) {
    std::vector<platform::DeviceInterface> devices;
    std::vector<std::string> skipped;
    error = platform::listDeviceInterfaces(pGuid[classIndex], devices, &skipped);
    if (error != 0) return false;
    for (const std::string& name : skipped)
        QVL_LOG(kLogScan, "  scanForDevices skips %s in pGuid[%d]: neither a socket nor a character device",
                name.c_str(), static_cast<int>(classIndex));
    bool found = false;
    for (std::size_t devIndex = 0; devIndex < devices.size(); ++devIndex) {
        const platform::DeviceInterface& device = devices[devIndex];
        QVL_LOG(kLogDetail, "  scanForDevices tries pGuid[%d] w/ devIndex=%d", static_cast<int>(classIndex),
                static_cast<int>(devIndex));
        const char* filter = kReaderClasses[classIndex].filter;
        const bool matches = filter == nullptr || device.path.find(filter) != std::string::npos;
        if (!matches || device.path.size() >= sizeof(DeviceInfo::path)) {
            QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - the GUID NOT match the vid pid");
            continue;
        }
        takeDevice(device.path.c_str(), device.instanceId.c_str(), devIndex, next, kReaderClasses[classIndex].isTama);
        found = true;
    }
    return found;
}

void USBFileIO::takeDevice(const char* path, const char* instanceId, std::size_t devIndex, std::size_t next,
                           bool isTama) {
    QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - found the valid GUID match the vid pid");
    QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - check if device is already present");
    if (DeviceInfo* known = find(path)) {
        QVL_LOG(kLogDetail, "\nfound dev in array deviceInfo @ i=%d, devIndex=%d, path=%s",
                static_cast<int>(known - deviceInfo.data()), static_cast<int>(devIndex), path);
        QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - device is already in array ");
        known->present = 1;
        return;
    }
    QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - device is not in the array, means new device \n\t\t\t(%s)", path);
    std::size_t index = next;
    while (index < kEntries && deviceInfo[index].path[0] != '\0')
        ++index;
    if (index < kEntries) {
        QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - copy the device path to the deviceInfo[%d] ",
                static_cast<int>(index));
    } else {
        QVL_LOG(kLogDetail, "USBFileIO::scanForDevice - copy the device path to the deviceInfo[0] (recycle to the "
                            "begining of the array)");
        index = 0;
    }
    DeviceInfo& entry = deviceInfo[index];
    copyText(entry.path, path, sizeof entry.path);
    copyText(entry.instanceId, instanceId, kLongestInstanceId);
    entry.present = 1;
    entry.isTama = isTama ? 1 : 0;
}

void USBFileIO::takeSerialPort(std::size_t next) {
    char name[sizeof(DeviceInfo::path)];
    const std::uint32_t port = readerSetting("SERIAL_PORT", kDefaultPort);
    const std::uint32_t baudRate = readerSetting("SERIAL_BAUDRATE", kDefaultBaudRate);
    std::snprintf(name, sizeof name, "COM%d;%d", static_cast<int>(port), static_cast<int>(baudRate));
    if (DeviceInfo* known = find(name)) {
        known->present = 1;
        return;
    }
    DeviceInfo& entry = deviceInfo[next < kEntries ? next : 0];
    copyText(entry.path, name, sizeof entry.path);
    entry.instanceId[0] = '\0';
    entry.isTama = 1;
    entry.present = 1;
}
