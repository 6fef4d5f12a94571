// Works on the memory of a tag as delivered, and prints what a round took. Searching the tag, what an operation needs
// on it, a first round, and what brings the tag back after each round are left out of the figures.
//
//     bench_tag WHERE OPERATION ROUNDS [mf500] [counted]
//
//     WHERE      virtual: a reader in this process; line: the serial port that the settings name
//     OPERATION  read1k: all 48 data blocks; read4k: all 216; write: 45 blocks from block 4 on;
//                format: with a directory, and back; initapp: an application of two sectors; adjust: a value by 1
//     mf500      the reader is an MF RC500, and a line its message socket
//     counted    counts commands and bytes on the way to the device, which costs a few instructions

#include "Allocations.h"
#include "BenchReader.h"
#include "MifareClassicTag.h"
#include "ServiceStatus.h"
#include "Times.h"
#include "Trailer.h"
#include "ValueBlock.h"

#include <array>
#include <cinttypes>
#include <cstdlib>

namespace {

constexpr std::uint8_t kUid[] = {0xDE, 0xAD, 0xBE, 0xEF};
constexpr std::size_t kSize1K = 1024;
constexpr std::size_t kSize4K = 4096;
constexpr short kDataBlocks1K = 48;
constexpr short kDataBlocks4K = 216;
constexpr short kFirstWritten = 4;
constexpr short kWrittenBlocks = 45;
constexpr int kBlockSize = 16;
constexpr short kAppId = 0x1234;
constexpr short kAppSectors = 2;

/// A host with one tag. Its operations tell whether they were done, and release what was handed out.
class Host {
  public:
    explicit Host(ReaderImpl& adaptor) : mAdaptor(adaptor) {}
    ~Host() { mAdaptor.freeMemory(mTag); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    bool findTag() { return mAdaptor.getTagId(0, TagAppNone, 0, mTag, AuthKeyA, nullptr, true) == kOk; }
    bool nothing() { return true; }
    bool read1K() { return read(kDataBlocks1K); }
    bool read4K() { return read(kDataBlocks4K); }
    bool writeBlocks() { return write(kWrittenBlocks); }
    bool writeValue() {
        encodeValueBlock(0, kFirstWritten, mData.data());
        return write(1);
    }
    bool formatAndBack() { return format() && unformat(); }
    bool format() {
        TagUID* tag = nullptr;
        int count = 0;
        OpResultCode* results = nullptr;
        const int status = mAdaptor.formatTag(0, TagAppMad1, mKey.data(), tag, nullptr, count, results);
        mAdaptor.freeMemory(tag);
        mAdaptor.freeMemory(results);
        return status == kOk;
    }
    bool initApp() {
        int done = 0, count = 0;
        OpResultCode* results = nullptr;
        const int status = mAdaptor.initApp(0, TagAppMad1, kAppId, mKey.data(), nullptr, 0, kAppSectors, *mTag,
                                            FactoryKey.data(), mKey.data(), AccData100, done, count, results);
        mAdaptor.freeMemory(results);
        return status == kOk;
    }
    bool resetApp() {
        return mAdaptor.resetApp(0, TagAppMad1, kAppId, mKey.data(), 0, kAppSectors, *mTag, AuthKeyB, mKey.data(),
                                 nullptr, nullptr, nullptr) == kOk;
    }
    bool adjustValue() {
        return mAdaptor.adjustValue(0, TagAppNone, *mTag, 0, AuthKeyA, FactoryKey.data(), kFirstWritten, ValueIncrement,
                                    1, -1, AuthKeyA, nullptr) == kOk;
    }

  private:
    bool read(short blocks) {
        std::uint8_t* data = nullptr;
        int length = 0, count = 0;
        OpResultCode* results = nullptr;
        const int status = mAdaptor.getBlockData(0, TagAppNone, *mTag, 0, AuthKeyA, FactoryKey.data(), 0, blocks, data,
                                                 length, AuthKeyA, nullptr, count, results);
        mAdaptor.freeMemory(data);
        mAdaptor.freeMemory(results);
        return status == kOk && length == blocks * kBlockSize;
    }
    bool write(short blocks) {
        int count = 0;
        OpResultCode* results = nullptr;
        const int status =
            mAdaptor.setBlockData(0, TagAppNone, *mTag, 0, AuthKeyA, FactoryKey.data(), kFirstWritten, blocks,
                                  mData.data(), blocks * kBlockSize, AuthKeyA, nullptr, nullptr, count, results);
        mAdaptor.freeMemory(results);
        return status == kOk;
    }
    bool unformat() {
        TagUID* tag = nullptr;
        const int status = mAdaptor.unformatTag(0, TagAppMad1, mKey.data(), tag, nullptr);
        mAdaptor.freeMemory(tag);
        return status == kOk;
    }

    ReaderImpl& mAdaptor;
    TagUID* mTag = nullptr;
    std::array<std::uint8_t, 6> mKey{1, 2, 3, 4, 5, 6};
    std::array<std::uint8_t, kWrittenBlocks * kBlockSize> mData{};
};

struct Operation {
    using Step = bool (Host::*)();
    std::string_view name;
    std::size_t tagSize;
    Step prepare;
    Step run;
    Step undo;
};

constexpr Operation kOperations[] = {
    {"read1k", kSize1K, &Host::nothing, &Host::read1K, &Host::nothing},
    {"read4k", kSize4K, &Host::nothing, &Host::read4K, &Host::nothing},
    {"write", kSize1K, &Host::nothing, &Host::writeBlocks, &Host::nothing},
    {"format", kSize1K, &Host::nothing, &Host::formatAndBack, &Host::nothing},
    {"initapp", kSize1K, &Host::format, &Host::initApp, &Host::resetApp},
    {"adjust", kSize1K, &Host::writeValue, &Host::adjustValue, &Host::nothing},
};

/// The only function that the profile collects.
[[gnu::noinline]] void runOnce(Host& host, Operation::Step step, std::size_t& failures) {
    if (!(host.*step)()) ++failures;
}

int run(ReaderImpl& adaptor, const Operation& operation, const LineCount& line, std::size_t rounds) {
    Host host(adaptor);
    if (!adaptor.initReader() || !host.findTag() || !(host.*operation.prepare)() || !(host.*operation.run)() ||
        !(host.*operation.undo)())
        return std::fputs("bench_tag: no reader, or not the tag for it\n", stderr), 1;
    const LineCount start = line;
    LineCount taken;
    std::uint64_t allocations = 0;
    std::size_t failures = 0;
    Times times;
    times.reserve(rounds);
    for (std::size_t round = 0; round < rounds; ++round) {
        const LineCount before = line;
        const std::uint64_t firstAllocations = allocationCount();
        const auto begin = std::chrono::steady_clock::now();
        runOnce(host, operation.run, failures);
        times.push_back(std::chrono::steady_clock::now() - begin);
        allocations += allocationCount() - firstAllocations;
        taken.commands += line.commands - before.commands;
        taken.bytes += line.bytes - before.bytes;
        if (!(host.*operation.undo)()) ++failures;
    }
    if (failures != 0) return std::fputs("bench_tag: an operation failed\n", stderr), 1;
    std::printf("allocations %" PRIu64 "\ncommands %" PRIu64 "\nbytes %" PRIu64 "\nall_commands %" PRIu64 "\n",
                allocations / rounds, taken.commands / rounds, taken.bytes / rounds, line.commands - start.commands);
    printTimes(times);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t rounds = argc < 4 ? 0 : std::strtoul(argv[3], nullptr, 10);
    BenchReader bench(argc, argv);
    const auto* operation =
        std::ranges::find_if(kOperations, [&](const Operation& wanted) { return bench.said(wanted.name); });
    if (rounds == 0 || operation == std::end(kOperations))
        return std::fputs(
                   "usage: bench_tag virtual|line read1k|read4k|write|format|initapp|adjust ROUNDS [mf500] [counted]\n",
                   stderr),
               2;
    bench.reader().field().place(
        std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(operation->tagSize, kUid), kUid));
    const std::unique_ptr<ReaderImpl> adaptor = bench.createAdaptor();
    return adaptor ? run(*adaptor, *operation, bench.line(), rounds) : 1;
}
