#pragma once

#include "CountingDevice.h"
#include "ReaderImpl.h"
#include "TamaDeviceFactory.h"
#include "TamaSerialDevice.h"
#include "VirtualTamaDevice.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

/// The reader that a bench works on, as the words on its command line say. Outlives the adaptor.
///
///     virtual  a reader in this process, not the serial port that the settings name
///     keyed    that reader scrambles its link
///     counted  counts commands and bytes on the way to the device, which costs a few instructions
class BenchReader {
  public:
    BenchReader(int argc, char** argv) : mBegin(argv + 1), mEnd(argv + argc) {
        ReaderOptions options;
        options.knowsLinkKey = said("keyed");
        mReader = std::make_shared<VirtualTamaReader>(options);
    }

    bool said(std::string_view word) const { return std::find(mBegin, mEnd, word) != mEnd; }
    /// The reader in this process.
    VirtualTamaReader& reader() const { return *mReader; }
    const LineCount& line() const { return mLine; }

    /// Null without memory.
    std::unique_ptr<ReaderImpl> createAdaptor() {
        if (said("virtual") || said("counted"))
            setTamaDeviceFactory([this](const TamaDeviceRequest& request) { return makeDevice(request); });
        return std::unique_ptr<ReaderImpl>(createAdaptorInstance(nullptr));
    }

  private:
    std::unique_ptr<TamaDevice> makeDevice(const TamaDeviceRequest& request) {
        std::unique_ptr<TamaDevice> device;
        if (said("virtual"))
            device = std::make_unique<VirtualTamaDevice>(mReader);
        else
            device = std::make_unique<TamaSerialDevice>(*request.assembler, request.baudRate);
        return said("counted") ? std::make_unique<CountingDevice>(std::move(device), mLine) : std::move(device);
    }

    char** mBegin;
    char** mEnd;
    std::shared_ptr<VirtualTamaReader> mReader;
    LineCount mLine;
};
