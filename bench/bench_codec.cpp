// Throughput of the pure computations.

#include "LinkCipher.h"
#include "QVLParamCollection.h"
#include "TamaFrame.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using benchmark::ClobberMemory;
using benchmark::DoNotOptimize;
using Bytes = std::vector<std::uint8_t>;

constexpr std::array<std::uint8_t, LinkCipher::kKeySize> kKey{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
constexpr std::uint8_t kExchangeThru = 0x42;  // a command whose reply has no status to look at

Bytes sizedBytes(const benchmark::State& state) { return Bytes(static_cast<std::size_t>(state.range(0)), 0x5A); }

void countBytes(benchmark::State& state, std::size_t bytesARound) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytesARound));
}

void copy(benchmark::State& state) {
    const Bytes from = sizedBytes(state);
    Bytes to(from.size());
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        ClobberMemory();
    }
    countBytes(state, from.size());
}
BENCHMARK(copy)->Arg(16)->Arg(64)->Arg(256);

void crypt(benchmark::State& state) {
    LinkCipher cipher;
    cipher.setKey(kKey.data());
    Bytes data = sizedBytes(state);
    for (auto _ : state) {
        cipher.crypt(data.data(), static_cast<int>(data.size()));
        ClobberMemory();
    }
    countBytes(state, data.size());
}
BENCHMARK(crypt)->Arg(16)->Arg(64)->Arg(256);

void keySchedule(benchmark::State& state) {
    LinkCipher cipher;
    for (auto _ : state) {
        cipher.setKey(kKey.data());
        ClobberMemory();
    }
}
BENCHMARK(keySchedule);

/// Builds the frame of a command of so many bytes.
void buildFrame(benchmark::State& state) {
    Bytes command = sizedBytes(state);
    std::array<std::uint8_t, tama::kBufferSize> out;
    std::size_t size = 0;
    for (auto _ : state) {
        DoNotOptimize(size = tama::buildFrame(command, out));
        ClobberMemory();
    }
    countBytes(state, size);
}
BENCHMARK(buildFrame)->Arg(3)->Arg(20)->Arg(254);

/// Checks the reply to a command of so many bytes, which answers with as many.
void checkReply(benchmark::State& state) {
    Bytes command = sizedBytes(state);
    command[0] = kExchangeThru;
    std::array<std::uint8_t, tama::kBufferSize> sent, reply{};
    const std::size_t size = tama::buildFrame(command, sent);
    ++command[0];
    tama::buildFrame(command, reply);
    ++reply[tama::kTfi];
    --reply[size - 2];  // the checksum follows
    for (auto _ : state) {
        const tama::Fault fault = tama::checkReply(reply, size, {sent.data(), size}, true);
        if (fault != tama::Fault::none) state.SkipWithError("the reply is not sound");
        ClobberMemory();
    }
    countBytes(state, size);
}
BENCHMARK(checkReply)->Arg(3)->Arg(20)->Arg(254);

/// Writes one value of each type, with so many bytes in the last, and reads all of them back.
void paramRoundTrip(benchmark::State& state) {
    const Bytes bytes = sizedBytes(state);
    QVLParamCollection values;
    for (auto _ : state) {
        values.clear();
        values.addShort(7);
        values.addLong(70000);
        values.addByte(3);
        values.addString("sector");
        values.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
        values.rewind();
        std::uint16_t number = 0;
        std::uint32_t longNumber = 0, length = 0;
        std::uint8_t byte = 0, *read = nullptr;
        char* text = nullptr;
        values.getShort(number);
        values.getLong(longNumber);
        values.getByte(byte);
        values.getString(text);
        if (values.getBytes(length, read) != 3000) state.SkipWithError("not read back");
        delete[] text;
        delete[] read;
    }
    countBytes(state, values.getSize());
}
BENCHMARK(paramRoundTrip)->Arg(16)->Arg(256)->Arg(4096);

}  // namespace
