// Where things are found: devices, ports, the installation, libraries; and who is believed about it.

#include "Devices.h"
#include "DynamicLibrary.h"
#include "Environment.h"
#include "PlatformTest.h"
#include "UniqueId.h"

#include <set>

namespace {

constexpr char kClass[] = "4d36e978-e325-11ce-bfc1-08002be10318";

class DevicesTest : public testing::Test {
  protected:
    TempDirectory mRoot;
    ScopedEnvironment mEnvironment{"QVL_DEVICE_ROOT", mRoot.path().c_str()};
};

TEST_F(DevicesTest, ListsAClassInByteOrder) {
    std::vector<DeviceInterface> found{{"stale", "stale"}};
    EXPECT_EQ(listDeviceInterfaces(kClass, found), 0);
    EXPECT_TRUE(found.empty());

    fs::create_directories(mRoot / kClass + "/directory");
    for (const char* name : {"a b", "\xFF", "#1", "A", "\xC3\xA9", "9", "a", "10"})
        fs::create_symlink("/dev/null", mRoot / kClass + '/' + name);
    ::mkfifo((mRoot / kClass + "/fifo").c_str(), 0600);
    fs::create_symlink(mRoot.write(std::string(kClass) + "/a text", ""), mRoot / kClass + "/a link to it");
    fs::create_symlink("nowhere", mRoot / kClass + "/dangling");
    std::vector<std::string> skipped{"stale"};
    EXPECT_EQ(listDeviceInterfaces(kClass, found, &skipped), 0);
    EXPECT_THAT(skipped, testing::ElementsAre("a link to it", "a text", "dangling", "directory", "fifo"));
    std::string names;
    for (const DeviceInterface& each : found) {
        names += each.instanceId + ',';
        EXPECT_EQ(each.path, mRoot / kClass + '/' + each.instanceId);
    }
    EXPECT_EQ(names, "#1,10,9,A,a,a b,\xC3\xA9,\xFF,");

    mRoot.write("no-directory", "");
    EXPECT_EQ(listDeviceInterfaces("no-directory", found, &skipped), ENOTDIR);
    EXPECT_TRUE(found.empty() && skipped.empty());
}

TEST_F(DevicesTest, FindsSerialPorts) {
    mRoot.write("COM3", "");
    mRoot.write("COM0", "");
    fs::create_symlink("gone", mRoot / "COM5");  // no other port may be taken for it
    const std::pair<const char*, std::string> cases[] = {
        {"COM3", mRoot / "COM3"},        {"COM5", mRoot / "COM5"},
        {"COM1", "/dev/ttyS0"},          {"COM4294967295", "/dev/ttyS4294967294"},
        {"COM0", mRoot / "COM0"},        {"COM", mRoot / "COM"},
        {"COM3x", mRoot / "COM3x"},      {"COM-1", mRoot / "COM-1"},
        {"COM+1", mRoot / "COM+1"},      {"COM4294967296", mRoot / "COM4294967296"},
        {"LPT1", mRoot / "LPT1"},        {"./COM3", "./COM3"},
        {"/dev/ttyUSB0", "/dev/ttyUSB0"}};
    for (const auto& [name, path] : cases)
        EXPECT_EQ(serialPortPath(name), path);
}

TEST_F(DevicesTest, RaisedRightsSilenceTheEnvironment) {
    EXPECT_FALSE(hasRaisedRights());
    EXPECT_EQ(trustedVariable("QVL_DEVICE_ROOT", true), "");
    EXPECT_EQ(deviceRoot(), mRoot.path());
    for (const char* unset : {static_cast<const char*>(nullptr), ""}) {
        const ScopedEnvironment none("QVL_DEVICE_ROOT", unset);
        EXPECT_EQ(deviceRoot(), "/dev/qvlreader");
    }
    const ScopedEnvironment planted("QVL_PATH", "/planted");
    const std::string installed = mRoot.write("QVL_PATH", "/opt/qvl\n");
    EXPECT_EQ(installationPathFrom(installed.c_str(), true), "/opt/qvl");
    EXPECT_EQ(installationPathFrom(installed.c_str(), false), "/planted");
    EXPECT_EQ(installationPath(), "/planted");
}

TEST_F(DevicesTest, InstallerLeavesThePathInTheFirstLine) {
    const ScopedEnvironment unset("QVL_PATH", "");
    const std::pair<const char*, const char*> cases[] = {
        {"/opt/qvl", "/opt/qvl"}, {"/opt/q v l\r\nsecond\n", "/opt/q v l"}, {"", ""}, {"\n/opt", ""}};
    for (const auto& [text, path] : cases)
        EXPECT_EQ(installationPathFrom(mRoot.write("file", text).c_str(), false), path);
    ::mkfifo((mRoot / "fifo").c_str(), 0600);
    for (const char* name : {"fifo", "absent", "."})
        EXPECT_EQ(installationPathFrom((mRoot / name).c_str(), false), "") << name;
}

TEST(SystemPathTest, DropsTheDriveAndTurnsBackslashes) {
    const std::pair<const char*, const char*> cases[] = {{"C:\\QVL\\log", "/QVL/log"},
                                                         {"d:log", "log"},
                                                         {"/opt/qvl", "/opt/qvl"},
                                                         {"C:", ""},
                                                         {"", ""},
                                                         {"1:\\x", "1:/x"},
                                                         {"ab:\\x", "ab:/x"},
                                                         {"\\\\host\\share", "//host/share"}};
    for (const auto& [given, path] : cases)
        EXPECT_EQ(toSystemPath(given), path);
}

TEST(DynamicLibraryTest, LoadsByPathOnly) {
    EXPECT_EQ(programDirectory(), fs::read_symlink("/proc/self/exe").parent_path().string());
    EXPECT_EQ(dynamicLibraryFileName("usbdll"), "libusbdll.so");
    for (const char* absent : {"libm.so.6", "/nonexistent/libm.so.6"})
        EXPECT_EQ(loadSymbol(absent, "cos"), nullptr);
    for (const char* directory : {"/lib/x86_64-linux-gnu", "/lib/aarch64-linux-gnu", "/lib64", "/usr/lib"}) {
        const std::string library = std::string(directory) + "/libm.so.6";
        if (!fs::exists(library)) continue;
        EXPECT_NE(loadSymbol(library.c_str(), "cos"), nullptr);
        EXPECT_EQ(loadSymbol(library.c_str(), "noSuchSymbol"), nullptr);
        return;
    }
    GTEST_SKIP() << "no library to load";
}

TEST(UniqueIdTest, IsOfVersion4AndNew) {
    const auto isVersion4 =
        testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    while (seen.size() < 200) {
        const auto [id, isNew] = seen.insert(newUniqueId());
        EXPECT_THAT(*id, isVersion4);
        ASSERT_TRUE(isNew);
    }
}

}  // namespace
