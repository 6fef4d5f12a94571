#pragma once

#include "TamaDevice.h"
#include "TamaFrameAssembler.h"

#include <cstdint>
#include <functional>
#include <memory>

/// What the driver knows when it wants a device. `assembler` is there for a serial name only, and outlives the device.
struct TamaDeviceRequest {
    const char* name;
    std::uint32_t baudRate;
    TamaFrameAssembler* assembler;
};

using TamaDeviceFactory = std::function<std::unique_ptr<TamaDevice>(const TamaDeviceRequest&)>;

/// True for the names of serial ports: their first three characters are exactly "COM".
bool isSerialName(const char* name);

/// Makes the device, closed. The factory chooses by the name unless a test has put another one in place.
std::unique_ptr<TamaDevice> makeTamaDevice(const TamaDeviceRequest& request);
/// Puts another factory in place; an empty one restores the choice by name. Not while a driver opens its device.
void setTamaDeviceFactory(TamaDeviceFactory factory);
