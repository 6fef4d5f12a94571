#include "TamaDeviceFactory.h"

#include "TamaFileDevice.h"
#include "TamaSerialDevice.h"

#include <cstring>
#include <utility>

namespace {

TamaDeviceFactory& replacement() {
    static TamaDeviceFactory factory;
    return factory;
}

}  // namespace

bool isSerialName(const char* name) { return std::strncmp(name, "COM", 3) == 0; }

std::unique_ptr<TamaDevice> makeTamaDevice(const TamaDeviceRequest& request) {
    if (replacement()) return replacement()(request);
    if (request.assembler != nullptr) return std::make_unique<TamaSerialDevice>(*request.assembler, request.baudRate);
    return std::make_unique<TamaFileDevice>();
}

void setTamaDeviceFactory(TamaDeviceFactory factory) { replacement() = std::move(factory); }
