// The helper library that knows the instance id of an MF RC500 reader's device: beside this program lies one.

#include "DeviceScan.h"
#include "Workplace.h"

#include <sys/auxv.h>

bool gRaisedRights = false;
extern "C" unsigned long __real_getauxval(unsigned long);
extern "C" unsigned long __wrap_getauxval(unsigned long type);
unsigned long __wrap_getauxval(unsigned long type) {
    return type == AT_SECURE ? gRaisedRights : __real_getauxval(type);
}

namespace {

TEST(UsbDll, TellsTheInstanceIdOfAnOpenMf500) {
    Workplace place;
    place.start();
    EXPECT_EQ(place.adaptor->getDeviceInstanceID(), nullptr);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(place.adaptor->initReader());
        if (isMf500UnderTest()) {
            EXPECT_STREQ(place.adaptor->getDeviceInstanceID(), "USB\\reader, 255 characters at most");
        } else {
            EXPECT_EQ(place.adaptor->getDeviceInstanceID(), nullptr) << "a PN531 does without";
        }
        place.adaptor->stopReader();
        EXPECT_EQ(place.adaptor->getDeviceInstanceID(), nullptr);
    }
    const ScopedEnvironment fails("TEST_USBDLL_FAILS", "1");
    EXPECT_TRUE(place.adaptor->initReader());
    EXPECT_EQ(place.adaptor->getDeviceInstanceID(), nullptr);
}

TEST(UsbDll, IsNotTakenFromBesideAProgramWithRaisedRights) {
    for (const bool raised : {true, false}) {
        gRaisedRights = raised;
        EXPECT_EQ(FoundReader().findInstanceHelper() == nullptr, raised);
    }
}

}  // namespace
