// Polls, and prints what that took. The first poll belongs to the start and is left out of the figures.
//
//     bench_poll WHERE FIELD POLLS [keyed] [counted]
//
//     WHERE    virtual: a reader in this process; line: the serial port that the settings name
//     FIELD    empty, or tag: one that is new for every poll
//     keyed    the reader in this process scrambles its link
//     counted  counts commands and bytes on the way to the device, which costs a few instructions

#include "Allocations.h"
#include "CountingDevice.h"
#include "MifareClassicTag.h"
#include "ReaderImpl.h"
#include "TamaDeviceFactory.h"
#include "TamaSerialDevice.h"
#include "Times.h"
#include "VirtualTamaDevice.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <string_view>

namespace {

constexpr std::uint8_t kUid[] = {0xDE, 0xAD, 0xBE, 0xEF};
constexpr std::size_t kTagSize = 1024;
constexpr std::uint8_t kKeyCommand = 0x1C;

struct Arguments {
    bool isVirtual = false;
    bool hasTag = false;
    std::size_t polls = 0;
    bool keyed = false;
    bool counted = false;
};

/// A tag that blinks before each search is new for every poll, and the host pays nothing for it.
std::shared_ptr<VirtualTamaReader> makeReader(const Arguments& wanted) {
    ReaderOptions options;
    options.knowsLinkKey = wanted.keyed;
    auto reader = std::make_shared<VirtualTamaReader>(options);
    if (!wanted.hasTag) return reader;
    reader->field().place(std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(kTagSize, kUid), kUid));
    reader->addFault("4A from 1 tag blinks");
    return reader;
}

std::unique_ptr<TamaDevice> makeDevice(const TamaDeviceRequest& request, std::shared_ptr<VirtualTamaReader> reader,
                                       LineCount& line, const Arguments& wanted) {
    std::unique_ptr<TamaDevice> device;
    if (wanted.isVirtual)
        device = std::make_unique<VirtualTamaDevice>(std::move(reader));
    else
        device = std::make_unique<TamaSerialDevice>(*request.assembler, request.baudRate);
    return wanted.counted ? std::make_unique<CountingDevice>(std::move(device), line) : std::move(device);
}

/// A function of its own in the profile: a poll, and the release of what it hands out.
[[gnu::noinline]] bool pollOnce(ReaderImpl& adaptor) {
    EventObject* event = nullptr;
    if (!adaptor.pollTag(event, false, false)) return false;
    adaptor.freeMemory(event);
    return true;
}

int run(ReaderImpl& adaptor, const VirtualTamaReader& reader, const LineCount& line, const Arguments& wanted) {
    if (pollOnce(adaptor) != wanted.hasTag) return std::fputs("bench_poll: no reader, or another field\n", stderr), 1;
    const LineCount start = line;
    const std::uint32_t firstKeys = reader.commandCount(kKeyCommand);
    Times times(wanted.polls);
    const std::uint64_t firstAllocations = allocationCount();
    const std::size_t found = timeRounds(times, [&] { return pollOnce(adaptor); });
    const std::uint64_t allocations = allocationCount() - firstAllocations;

    if (found != (wanted.hasTag ? wanted.polls : 0)) return std::fputs("bench_poll: the field changed\n", stderr), 1;
    std::printf("allocations %" PRIu64 "\nkey_changes %" PRIu32 "\n", allocations,
                reader.commandCount(kKeyCommand) - firstKeys);
    printTimes(times);
    if (!wanted.counted) return 0;
    std::printf("start_commands %" PRIu64 "\nstart_bytes %" PRIu64 "\ncommands %" PRIu64 "\nbytes %" PRIu64 "\n",
                start.commands, start.bytes, line.commands - start.commands, line.bytes - start.bytes);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return std::fputs("usage: bench_poll virtual|line empty|tag POLLS [keyed] [counted]\n", stderr), 2;
    const auto said = [&](std::string_view word) { return std::find(argv + 1, argv + argc, word) != argv + argc; };
    const Arguments wanted{said("virtual"), said("tag"), std::strtoul(argv[3], nullptr, 10), said("keyed"),
                           said("counted")};
    const auto reader = makeReader(wanted);
    LineCount line;
    if (wanted.isVirtual || wanted.counted)
        setTamaDeviceFactory(
            [&](const TamaDeviceRequest& request) { return makeDevice(request, reader, line, wanted); });
    const std::unique_ptr<ReaderImpl> adaptor(createAdaptorInstance(nullptr));
    return adaptor ? run(*adaptor, *reader, line, wanted) : 1;
}
