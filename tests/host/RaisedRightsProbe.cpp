// Says what a process sees of its environment. Run with and without raised rights.

#include "Devices.h"
#include "IniManager.h"
#include "Installation.h"

#include <cstdio>

int main() {
    const char* setting = iniGetValue("READER", "WAITTIME");
    std::printf("%d %s %s %s\n", platform::hasRaisedRights() ? 1 : 0, platform::deviceRoot().c_str(),
                platform::installationPath().c_str(), setting != nullptr ? setting : "none");
    return 0;
}
