#pragma once

#include "Fuzz.h"
#include "ManualClock.h"
#include "ReaderImpl.h"
#include "TamaDeviceFactory.h"
#include "VirtualTamaDevice.h"

/// A reader that is ready, with nothing in its field. Made once a target.
struct Machine {
    Machine() {
        setTamaDeviceFactory([this](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(reader); });
        adaptor.reset(createAdaptorInstance(nullptr));
        adaptor->setTagPromptFlag(false);
        require(adaptor->initReader());
    }
    ~Machine() {
        adaptor.reset();
        setTamaDeviceFactory({});
    }

    ManualClock clock;
    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    std::unique_ptr<ReaderImpl> adaptor;
};
