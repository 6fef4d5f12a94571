// Whatever an MF RC500 may say: messages into the driver, whose operations then pick them apart. The first byte of an
// input chooses whether the link is scrambled, the second the operation; each message has its length in front.

#include "Driver.h"
#include "Mf500Device.h"
#include "Mf500bfl.h"

namespace {

using Input = std::span<const std::uint8_t>;

/// A reader whose replies are the input. After the last it is silent.
class InputDevice : public Mf500Device {
  public:
    explicit InputDevice(Input& input) : mInput(input) {}

    bool open() override { return true; }
    void close() override {}
    platform::IoResult write(Input, std::uint32_t) override { return platform::IoResult::done; }
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) override {
        count = 0;
        if (mInput.empty() || timeoutMs == 0) return platform::IoResult::timedOut;
        count = std::min({std::size_t{mInput[0]} * 17, mInput.size() - 1, buffer.size()});
        std::copy_n(mInput.begin() + 1, count, buffer.begin());
        mInput = mInput.subspan(1 + count);
        return platform::IoResult::done;
    }

  private:
    Input& mInput;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    static Input input;
    input = Input{data + 2, size - 2};
    setMf500DeviceFactory([] { return std::make_unique<InputDevice>(input); });
    Mf500bfl driver;
    driver.interfaceOpen(49, 0);
    std::array<std::uint8_t, 16> confirmation{}, sessionKey{};
    sessionKey[0] = data[0] % 2;
    if (data[0] % 2 == 1) driver.pcdConfig2(confirmation.data(), sessionKey.data());
    for (std::size_t i = 0; i < 4 && !input.empty(); ++i)
        useDriver(driver, data[1] + (data[0] > 127 ? i : 0));
    driver.interfaceClose();
    return 0;
}
