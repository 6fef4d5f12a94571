// A helper library as the adaptor loads it.

#include <cstdio>
#include <cstdlib>

extern "C" __attribute__((visibility("default"))) int USBLib_GetCurrentDevInstID(char* buffer, int size,
                                                                                 unsigned short* length) {
    if (std::getenv("TEST_USBDLL_FAILS") != nullptr) return 1;
    *length = static_cast<unsigned short>(
        std::snprintf(buffer, static_cast<std::size_t>(size), "USB\\reader, %d characters at most", size));
    return 0;
}
