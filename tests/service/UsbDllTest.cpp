// The helper library that knows the instance id of an MF RC500 reader's device: beside this program lies one.

#include "Workplace.h"

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

}  // namespace
