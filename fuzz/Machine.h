#pragma once

#include "Clock.h"
#include "ReaderImpl.h"
#include "TamaDeviceFactory.h"
#include "VirtualTamaDevice.h"
#include "VirtualTamaReader.h"

#include <cstdlib>
#include <memory>

/// Pauses pass at once.
struct SwiftClock : platform::Clock {
    SwiftClock() { replace(this); }
    ~SwiftClock() override { replace(nullptr); }
    std::uint64_t nowMs() override { return mNow; }
    void pauseMs(std::uint32_t ms) override { mNow += ms; }
    bool waitFor(platform::ManualResetEvent&, std::uint32_t ms) override {
        mNow += ms;
        return false;
    }
    std::uint64_t mNow = 1;
};

/// A reader that is ready, with nothing in its field. Made once a target.
struct Machine {
    Machine() {
        setTamaDeviceFactory([this](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(reader); });
        adaptor.reset(createAdaptorInstance(nullptr));
        adaptor->setTagPromptFlag(false);
        if (!adaptor->initReader()) std::abort();
    }
    ~Machine() {
        adaptor.reset();
        setTamaDeviceFactory({});
    }

    SwiftClock clock;
    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    std::unique_ptr<ReaderImpl> adaptor;
};
