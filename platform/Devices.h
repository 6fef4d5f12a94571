#pragma once

#include <string>
#include <vector>

namespace platform {

/// A device that is present in an interface class.
struct DeviceInterface {
    std::string path;        ///< What a DeviceNode opens.
    std::string instanceId;  ///< How the system names this one device.
};

/// The directory in which readers are published; resolved at each call. QVL_DEVICE_ROOT in the environment names
/// another one, unless the process runs with raised rights.
std::string deviceRoot();

/// Lists the present devices of an interface class, in byte order of their names. `classGuid` is the class identifier
/// as text in lower case, with dashes and without braces. Only what can be a device counts: on this system sockets,
/// character devices and links to them. The names of everything else go to `skipped`, in the same order, if it is
/// given; none of it is opened.
/// @return 0, also when the class has no device or cannot be listed; the system's error number when what is there is no
/// class or stops being readable on the way.
int listDeviceInterfaces(const char* classGuid, std::vector<DeviceInterface>& out,
                         std::vector<std::string>* skipped = nullptr);

/// Where serial port `name` lives: the entry of that name in the device root; for "COM<n>" the system's n-th port when
/// that is absent. A path stands for itself.
std::string serialPortPath(const char* name);

}  // namespace platform
