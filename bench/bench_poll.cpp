// Polls, and prints what that took. The first poll belongs to the start and is left out of the figures.
//
//     bench_poll WHERE FIELD POLLS [mf500] [keyed] [counted]
//
//     WHERE    virtual: a reader in this process; line: the serial port that the settings name
//     FIELD    empty, or tag: one that is new for every poll
//     mf500    the reader is an MF RC500, and a line its message socket
//     keyed    the reader in this process scrambles its link
//     counted  counts commands and bytes on the way to the device, which costs a few instructions

#include "Allocations.h"
#include "BenchReader.h"
#include "MifareClassicTag.h"
#include "Times.h"

#include <cinttypes>
#include <cstdlib>

namespace {

constexpr std::uint8_t kUid[] = {0xDE, 0xAD, 0xBE, 0xEF};
constexpr std::size_t kTagSize = 1024;
constexpr std::uint8_t kKeyCommand = 0x1C;

/// A tag that blinks before each search is new for every poll, and the host pays nothing for it.
void placeTag(const BenchReader& bench) {
    VirtualReader& reader = bench.reader();
    reader.field().place(std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(kTagSize, kUid), kUid));
    reader.addFault(bench.isMf500() ? "43 from 1 tag blinks" : "4A from 1 tag blinks");
}

/// A function of its own in the profile: a poll, and the release of what it hands out.
[[gnu::noinline]] bool pollOnce(ReaderImpl& adaptor) {
    EventObject* event = nullptr;
    if (!adaptor.pollTag(event, false, false)) return false;
    adaptor.freeMemory(event);
    return true;
}

int run(ReaderImpl& adaptor, const BenchReader& bench, bool hasTag, std::size_t polls) {
    const LineCount& line = bench.line();
    if (pollOnce(adaptor) != hasTag) return std::fputs("bench_poll: no reader, or another field\n", stderr), 1;
    const LineCount start = line;
    const std::uint32_t firstKeys = bench.reader().commandCount(kKeyCommand);
    Times times(polls);
    const std::uint64_t firstAllocations = allocationCount();
    const std::size_t found = timeRounds(times, [&] { return pollOnce(adaptor); });
    const std::uint64_t allocations = allocationCount() - firstAllocations;

    if (found != (hasTag ? polls : 0)) return std::fputs("bench_poll: the field changed\n", stderr), 1;
    std::printf("allocations %" PRIu64 "\nkey_changes %" PRIu32 "\n", allocations,
                bench.reader().commandCount(kKeyCommand) - firstKeys);
    printTimes(times);
    if (!bench.said("counted")) return 0;
    std::printf("start_commands %" PRIu64 "\nstart_bytes %" PRIu64 "\ncommands %" PRIu64 "\nbytes %" PRIu64 "\n",
                start.commands, start.bytes, line.commands - start.commands, line.bytes - start.bytes);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4)
        return std::fputs("usage: bench_poll virtual|line empty|tag POLLS [mf500] [keyed] [counted]\n", stderr), 2;
    BenchReader bench(argc, argv);
    const bool hasTag = bench.said("tag");
    if (hasTag) placeTag(bench);
    const std::unique_ptr<ReaderImpl> adaptor = bench.createAdaptor();
    return adaptor ? run(*adaptor, bench, hasTag, std::strtoul(argv[3], nullptr, 10)) : 1;
}
