// Whatever a reader on a serial line may send: bytes through the frame assembler into the driver, whose operations then
// pick them apart. The first byte of an input says whether lengths and checksums are put right, so that the fuzzer gets
// past them.

#include "Driver.h"
#include "NfcTamaBfl.h"
#include "TamaDeviceFactory.h"
#include "TamaFrameAssembler.h"

#include <numeric>

namespace {

/// A reader that sends what is left of the input.
class InputDevice : public TamaDevice {
  public:
    explicit InputDevice(std::span<const std::uint8_t>& input) : mInput(input) {}

    std::int32_t OpenInterface(const char*, std::uint32_t, std::uint32_t) override { return kDeviceOk; }
    std::int32_t CloseInterface() override { return kDeviceOk; }
    std::int32_t WriteBytesUnblocked(const std::uint8_t*, int len, std::uint32_t* count, std::uint32_t) override {
        *count = static_cast<std::uint32_t>(len);
        return kDeviceOk;
    }
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count, std::uint32_t) override {
        bool more = true, bad = false;
        while (more && !mInput.empty()) {
            mAssembler.appendByte(mInput[0]);
            mInput = mInput.subspan(1);
            mAssembler.needsMoreBytes(&more);
        }
        *count = 0;
        mAssembler.hasBadHeader(&bad);
        if (!bad) {
            mAssembler.copyFrame(buffer, static_cast<std::uint32_t>(size));
            mAssembler.frameLength(count);
        }
        mAssembler.reset();
        return more ? std::int32_t{kDeviceTimedOut} : std::int32_t{kDeviceOk};
    }

  private:
    std::span<const std::uint8_t>& mInput;
    TamaFrameAssembler mAssembler;
};

/// A sound dialogue whose replies carry the input: ACK and reply for each slice.
Bytes soundDialogue(std::span<const std::uint8_t> input, std::uint8_t code) {
    Bytes out;
    while (!input.empty()) {
        const std::size_t size = std::min<std::size_t>(input[0], input.size() - 1);
        Bytes body{0xD5, code};
        body.insert(body.end(), input.begin() + 1,
                    input.begin() + 1 + static_cast<std::ptrdiff_t>(std::min<std::size_t>(size, 252)));
        const auto len = static_cast<std::uint8_t>(body.size());
        const Bytes head{0, 0, 0xFF, 0, 0xFF, 0, 0, 0, 0xFF, len, static_cast<std::uint8_t>(-len)};
        out.insert(out.end(), head.begin(), head.end());
        out.insert(out.end(), body.begin(), body.end());
        out.push_back(static_cast<std::uint8_t>(-std::accumulate(body.begin(), body.end(), 0)));
        out.push_back(0);
        input = input.subspan(1 + size);
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::uint8_t kReplyCodes[kDriverOperations] = {0x4B, 0x4B, 0x4B, 0x4B, 0x41, 0x43, 0x25, 0x25,
                                                             0x1D, 0x01, 0x45, 0x4B, 0x4B, 0x4B, 0x4B};
    if (size < 2) return 0;
    const std::size_t operation = data[1] % kDriverOperations;
    const std::span<const std::uint8_t> rest{data + 2, size - 2};
    const Bytes sound =
        data[0] % 2 == 0 ? soundDialogue(rest, kReplyCodes[operation]) : Bytes(rest.begin(), rest.end());
    std::span<const std::uint8_t> input = sound;

    static std::span<const std::uint8_t>* current = nullptr;
    current = &input;
    setTamaDeviceFactory([](const TamaDeviceRequest&) { return std::make_unique<InputDevice>(*current); });
    const auto driver = NfcTamaBfl::acquire();
    driver->interfaceOpen(49, 0);
    for (int i = 0; i < 4 && !input.empty(); ++i)
        useDriver(*driver, operation);
    driver->interfaceClose();
    return 0;
}
