// The device scan and its table, on a device root of the test's own.

#include "USBFileIO.h"

#include "IniManager.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* kGuids[] = {"fe2f504b-5f97-4d4d-873d-559e49009dc6", "61217dae-665d-424b-baa9-99897897d6ae",
                                  "7481e7e3-b3da-11d4-b1f2-00d05913aea8", "a518e23b-d631-426f-b8f0-e17a61065f1d",
                                  "894a7461-a033-11d2-821e-444553540000"};

class TheScan : public ::testing::Test {
  protected:
    TheScan() : environment("QVL_DEVICE_ROOT", root.path().c_str()) { settings(""); }
    ~TheScan() override { settings(""); }

    void settings(const std::string& reader) {
        root.write("settings.ini", "[READER]\n" + reader + "[/READER]\n");
        IniManager::instance().setDirectoryAndReload(root.path().c_str());
        IniManager::instance().loadAndReplace("settings.ini");
    }
    std::string device(int index, const std::string& name) {
        root.makeDevice(kGuids[index] + ("/" + name));
        return root / kGuids[index] + "/" + name;
    }
    std::string entry(std::size_t index) const {
        const auto& info = scanner.deviceInfo[index];
        return std::string(info.path) + (info.present ? " present" : "") + (info.isTama ? " tama" : "");
    }
    std::size_t used() const {
        return static_cast<std::size_t>(
            std::ranges::count_if(scanner.deviceInfo, [](const auto& info) { return info.path[0] != '\0'; }));
    }

    TempDirectory root;
    ScopedEnvironment environment;
    USBFileIO scanner;
};

TEST_F(TheScan, FallsBackOnTheSerialPortOfTheSettings) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "COM1;9600 present tama,"},
        {"SERIAL_PORT=7\nSERIAL_BAUDRATE=115200\nSERIAL_FALLBACK=1\n", "COM7;115200 present tama,"},
        {"SERIAL_FALLBACK=0\n", ""},
        {"SERIAL_PORT=0\nSERIAL_BAUDRATE=-1\n", "COM1;9600 present tama,"},
        {"SERIAL_PORT=99999999999\n", "COM2147483647;9600 present tama,"},
    };
    for (const auto& [text, found] : cases) {
        settings(text);
        EXPECT_EQ(scanner.scanForDevices(), 0);
        std::string present;
        for (std::size_t i = 0; i < USBFileIO::kEntries; ++i)
            if (scanner.deviceInfo[i].present != 0) present += entry(i) + ",";
        EXPECT_EQ(present, found) << text;
    }
    EXPECT_EQ(used(), 3u) << "a name that comes back finds its old entry";
}

TEST_F(TheScan, TakesTheFirstClassThatHasADevice) {
    root.write(std::string(kGuids[0]) + "/notes.txt", "hides no reader");
    device(4, "later");
    const std::string mf500 = device(3, "mf500");
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(entry(0), mf500 + " present");
    EXPECT_EQ(used(), 1u);
    EXPECT_STREQ(scanner.deviceInfo[0].instanceId, "mf500");

    device(1, "usb-vid_04cc&pid_0532");  // another product: passes over to the later classes
    const std::string second = device(2, "b-vid_04cc&pid_0531");
    const std::string first = device(2, "a-vid_04cc&pid_0531");
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(entry(0), mf500) << "its entry stays, no longer present";
    EXPECT_EQ(entry(1), first + " present tama");
    EXPECT_EQ(entry(2), second + " present tama");

    const std::string tama = device(0, "any name");
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(entry(3), tama + " present tama");
    std::filesystem::remove(tama);
    std::filesystem::remove_all(root / kGuids[2]);
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(entry(0), mf500 + " present") << "back in its old place";
}

TEST_F(TheScan, RecyclesTheFirstEntryWhenTheTableIsFull) {
    for (int i = 0; i < 100; ++i)
        device(0, "device" + std::to_string(100 + i));
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(used(), USBFileIO::kEntries);
    EXPECT_EQ(std::string(scanner.deviceInfo[0].path), root / (std::string(kGuids[0]) + "/device199"));
    EXPECT_STREQ(scanner.deviceInfo[31].instanceId, "device131");
    std::filesystem::remove_all(root / kGuids[0]);
    EXPECT_EQ(scanner.scanForDevices(), 0);
    EXPECT_EQ(entry(0) + scanner.deviceInfo[0].instanceId, "COM1;9600 present tama") << "a port has no instance id";
}

TEST_F(TheScan, SkipsPathsThatDoNotFitAndReportsAClassThatCannotBeRead) {
    root.write(kGuids[2], "no directory");
    EXPECT_NE(scanner.scanForDevices(), 0);
    const std::string prefix = root / (std::string(kGuids[0]) + "/");
    for (const std::size_t length : {254u, 255u})
        device(0, std::string(length - prefix.size(), 'x'));
    EXPECT_EQ(scanner.scanForDevices(), 0) << "an earlier class answers first";
    EXPECT_EQ(used(), 1u);
    EXPECT_EQ(std::strlen(scanner.deviceInfo[0].path), 254u);
}

}  // namespace
