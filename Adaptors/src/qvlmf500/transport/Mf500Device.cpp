#include "Mf500Device.h"

#include "DeviceNode.h"
#include "Devices.h"
#include "ReaderClasses.h"

#include <utility>
#include <vector>

namespace {

Mf500DeviceFactory& replacement() {
    static Mf500DeviceFactory factory;
    return factory;
}

/// The first device of the interface classes, as it is found at each opening.
class FirstMf500Device : public Mf500Device {
  public:
    bool open() override {
        close();
        for (const ReaderClass& readerClass : kReaderClasses) {
            std::vector<platform::DeviceInterface> devices;
            if (readerClass.isTama || platform::listDeviceInterfaces(readerClass.guid, devices) != 0) continue;
            if (!devices.empty()) return mNode.open(devices[0].path.c_str());
        }
        return false;
    }
    void close() override { mNode.close(); }
    platform::IoResult write(std::span<const std::uint8_t> message, std::uint32_t timeoutMs) override {
        std::size_t count = 0;
        return mNode.write(message, count, timeoutMs);
    }
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) override {
        return mNode.read(buffer, count, timeoutMs);
    }

  private:
    platform::DeviceNode mNode;
};

}  // namespace

std::unique_ptr<Mf500Device> makeMf500Device() {
    return replacement() ? replacement()() : std::make_unique<FirstMf500Device>();
}

void setMf500DeviceFactory(Mf500DeviceFactory factory) { replacement() = std::move(factory); }
