#pragma once

#include "CountingDevice.h"
#include "Mf500bfl.h"
#include "NfcTamaBfl.h"
#include "ReaderClasses.h"
#include "ReaderImpl.h"
#include "TamaDeviceFactory.h"
#include "TamaSerialDevice.h"
#include "VirtualMf500Device.h"
#include "VirtualTamaDevice.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

/// The reader that a bench works on, as the words on its command line say. Outlives the adaptor.
///
///     virtual  a reader in this process; else the serial port that the settings name
///     mf500    an MF RC500 instead of a PN531: in this process, or the first one of the device root
///     keyed    that reader scrambles its link
///     counted  counts commands and bytes on the way to the device, which costs a few instructions; not on the socket
///              of an MF RC500
class BenchReader {
  public:
    BenchReader(int argc, char** argv) : mBegin(argv + 1), mEnd(argv + argc) {
        ReaderOptions options;
        options.knowsLinkKey = said("keyed");
        if (isMf500()) {
            mMf500 = std::make_shared<VirtualMf500Reader>(options);
            if (said("virtual")) showToScan();
        } else {
            mTama = std::make_shared<VirtualTamaReader>(options);
        }
    }
    ~BenchReader() {
        std::error_code ignored;
        if (!mRoot.empty()) std::filesystem::remove_all(mRoot, ignored);
    }
    BenchReader(const BenchReader&) = delete;
    BenchReader& operator=(const BenchReader&) = delete;

    bool said(std::string_view word) const { return std::find(mBegin, mEnd, word) != mEnd; }
    bool isMf500() const { return said("mf500"); }
    /// The reader in this process.
    VirtualReader& reader() const { return isMf500() ? static_cast<VirtualReader&>(*mMf500) : *mTama; }
    const LineCount& line() const { return mLine; }

    /// Null without memory.
    std::unique_ptr<ReaderImpl> createAdaptor() {
        if (said("virtual") || said("counted"))
            setTamaDeviceFactory([this](const TamaDeviceRequest& request) { return makeDevice(request); });
        if (isMf500() && said("virtual")) setMf500DeviceFactory([this] { return makeDevice(); });
        return std::unique_ptr<ReaderImpl>(createAdaptorInstance(nullptr));
    }
    std::shared_ptr<Qvl14443bfl> driver() const {
        if (isMf500()) return std::make_shared<Mf500bfl>();
        return NfcTamaBfl::acquire();
    }

  private:
    std::unique_ptr<TamaDevice> makeDevice(const TamaDeviceRequest& request) {
        std::unique_ptr<TamaDevice> device;
        if (said("virtual"))
            device = std::make_unique<VirtualTamaDevice>(mTama);
        else
            device = std::make_unique<TamaSerialDevice>(*request.assembler, request.baudRate);
        return said("counted") ? std::make_unique<CountingDevice>(std::move(device), mLine) : std::move(device);
    }
    std::unique_ptr<Mf500Device> makeDevice() {
        std::unique_ptr<Mf500Device> device = std::make_unique<VirtualMf500Device>(mMf500);
        return said("counted") ? std::make_unique<CountingMf500Device>(std::move(device), mLine) : std::move(device);
    }
    /// A name in the interface class of the MF RC500, on a device root of its own.
    void showToScan() {
        std::string root = (std::filesystem::temp_directory_path() / "qvlbench.XXXXXX").string();
        if (::mkdtemp(root.data()) == nullptr) return;
        mRoot = root;
        const std::string directory = mRoot + "/" + kReaderClasses[3].guid;
        std::filesystem::create_directory(directory);
        const std::ofstream name(directory + "/bench");
        ::setenv("QVL_DEVICE_ROOT", mRoot.c_str(), 1);
    }

    char** mBegin;
    char** mEnd;
    std::string mRoot;
    std::shared_ptr<VirtualTamaReader> mTama;
    std::shared_ptr<VirtualMf500Reader> mMf500;
    LineCount mLine;
};
