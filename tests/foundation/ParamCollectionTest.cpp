// The typed stream.

#include "HexBytes.h"
#include "HexText.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

std::string hex(const QVLParamCollection& stream) { return hexText(stream.getData(), stream.getSize()); }

QVLParamCollection streamOf(const std::string& digits) {
    const auto bytes = ::hex(digits);
    QVLParamCollection stream;
    EXPECT_EQ(stream.setData(static_cast<std::uint32_t>(bytes.size()), bytes.data()), kMemoryOk);
    return stream;
}

/// Reads one value and gives it as text: its status when that is no success.
std::string read(QVLParamCollection& stream, char kind) {
    std::uint16_t shortValue = 0;
    std::uint32_t longValue = 0, length = 99;
    std::uint8_t byteValue = 0, *bytes = nullptr;
    char* text = nullptr;
    const int status = kind == 's'   ? stream.getShort(shortValue)
                       : kind == 'l' ? stream.getLong(longValue)
                       : kind == 'b' ? stream.getByte(byteValue)
                       : kind == 't' ? stream.getString(text)
                                     : stream.getBytes(length, bytes);
    const std::unique_ptr<char[]> textOwner(text);
    const std::unique_ptr<std::uint8_t[]> bytesOwner(bytes);
    if (status != kMemoryOk) return "status " + std::to_string(status);
    if (kind == 't') return text ? text : "null";
    if (kind == 'x') return bytes ? hexText(bytes, length) : "null " + std::to_string(length);
    return std::to_string(shortValue + longValue + byteValue);
}

TEST(ParamCollection, EveryValueHasItsFormAndReadsBack) {
    const std::uint8_t bytes[] = {0xDE, 0xAD, 0x00};
    const std::tuple<std::function<int(QVLParamCollection&)>, const char*, char, const char*> cases[] = {
        {[](auto& s) { return s.addShort(0x07D2); }, "0107d2", 's', "2002"},
        {[](auto& s) { return s.addLong(0x80000001); }, "0280000001", 'l', "2147483649"},
        {[](auto& s) { return s.addByte(0xFE); }, "03fe", 'b', "254"},
        {[](auto& s) { return s.addString("Ab"); }, "04000000024162", 't', "Ab"},
        {[](auto& s) { return s.addString(""); }, "0400000000", 't', "null"},
        {[&](auto& s) { return s.addBytes(3, bytes); }, "0500000003dead00", 'x', "dead00"},
        {[](auto& s) { return s.addBytes(0, nullptr); }, "0500000000", 'x', "null 0"},
    };
    QVLParamCollection all;
    std::string wire;
    for (const auto& [add, valueWire, kind, value] : cases) {
        EXPECT_EQ(add(all), kMemoryOk);
        wire += valueWire;
    }
    EXPECT_EQ(all.addString(nullptr), kMemoryOk);
    EXPECT_EQ(all.addBytes(1, nullptr), kStreamFull);
    EXPECT_EQ(hex(all), wire);

    all.rewind();
    QVLParamCollection received = streamOf(wire);
    for (QVLParamCollection* stream : {&all, &received}) {
        std::uint8_t type = 0;
        for (const auto& [add, valueWire, kind, value] : cases) {
            EXPECT_EQ(stream->peekType(type), kMemoryOk);
            EXPECT_EQ(type, static_cast<std::uint8_t>(valueWire[1] - '0'));
            EXPECT_EQ(read(*stream, kind), value) << valueWire;
        }
    }
    std::uint8_t type = 0;
    EXPECT_EQ(received.peekType(type), kStreamEnd);
}

TEST(ParamCollection, ReadsStopAtTheEndAndRefuseOtherTypes) {
    // The reads, the outcome of the last one, and the streams.
    const std::tuple<std::string, const char*, std::vector<const char*>> cases[] = {
        {"s", "status 3037", {"", "01", "0107"}},
        {"l", "status 3037", {"02070707"}},
        {"b", "status 3037", {"03"}},
        {"sb", "status 3037", {"0103"}},  // the type byte of a value that is cut stays consumed
        {"ls", "1022", {"010103fe"}},     // and so does a refused one
        {"t", "status 3037", {"04000000", "047fffffffaa", "0480000000aa", "04ffffffffaa"}},
        {"x", "status 3037", {"0500000002aa", "05ffffffffaa"}},
        {"xb", "254", {"05ffffffff03fe"}},
        {"l", "status 3041", {"010003"}},
        {"t", "status 3041", {"0500000000"}},
    };
    for (const auto& [reads, last, wires] : cases)
        for (const char* wire : wires) {
            QVLParamCollection stream = streamOf(wire);
            std::string outcome;
            for (const char kind : reads)
                outcome = read(stream, kind);
            EXPECT_EQ(outcome, last) << wire;
        }
}

TEST(ParamCollection, WhatWasNeverWrittenReadsAsZero) {
    void* dirty = std::malloc(64);
    std::memset(dirty, 0xFF, 64);
    std::free(dirty);
    QVLParamCollection stream;
    for (std::uint32_t written : {1u, 40u}) {
        for (std::uint32_t i = 0; i < written; ++i)
            stream.addByte(0xFF);
        for (std::uint32_t i = stream.getSize(); i < stream.getCapacity(); ++i)
            ASSERT_EQ(stream.getData()[i], 0) << i;
    }
    stream.clear();
    EXPECT_EQ(stream.getSize(), 0u);
    EXPECT_EQ(hexText(stream.getData(), 128), std::string(256, '0'));
}

TEST(ParamCollection, WritesGoToTheCursorUnlessTheBufferGrows) {
    QVLParamCollection stream = streamOf("03010302");
    stream.addByte(3);  // no room: beyond the end
    EXPECT_EQ(hex(stream), "030103020303");
    stream.rewind();
    stream.addByte(4);
    EXPECT_EQ(hex(stream), "0304030203030000");  // the size counts what was written

    QVLParamCollection other;
    other.addByte(7);
    other.rewind();
    while (read(other, 'b') != "status 3037") {  // a read to the end of the capacity leaves no room there
    }
    EXPECT_EQ(other.addLong(0x01020304), kMemoryOk);
    EXPECT_EQ(hex(other), "03070201020304");
}

TEST(ParamCollection, CopiesShareUntilOneWrites) {
    const std::uint8_t bytes[] = {9};
    const std::pair<std::function<void(QVLParamCollection&)>, const char*> writes[] = {
        {[](auto& s) { s.addByte(2); }, "03010302"},
        {[](auto& s) { s.addString("A"); }, "0301040000000141"},
        {[](auto& s) { s.clear(); }, ""},
        {[&](auto& s) { s.setData(1, bytes); }, "09"},
        {[](auto& s) { std::free(s.detachData()); }, ""},
        {[](auto& s) { s = QVLParamCollection(); }, ""},
    };
    for (const auto& [write, result] : writes) {
        for (bool writerIsOriginal : {true, false}) {
            QVLParamCollection original;
            original.addByte(1);
            QVLParamCollection copy(original);
            QVLParamCollection third;
            third = copy;
            third = original;  // already shared
            const QVLParamCollection& same = third;
            third = same;
            EXPECT_EQ(original.getData(), third.getData());
            QVLParamCollection& writer = writerIsOriginal ? original : copy;
            write(writer);
            EXPECT_EQ(hex(writer), result);
            EXPECT_EQ(hex(writerIsOriginal ? copy : original), "0301");
            EXPECT_EQ(hex(third), "0301");
        }
    }
}

TEST(ParamCollection, TheOnlyOwnerHandsOverTheBufferItself) {
    QVLParamCollection owner = streamOf("0301");
    { const QVLParamCollection passing(owner); }
    const std::uint8_t* buffer = owner.getData();
    const std::unique_ptr<std::uint8_t, decltype(&std::free)> detached(owner.detachData(), &std::free);
    EXPECT_EQ(detached.get(), buffer);
    EXPECT_EQ(owner.getCapacity(), 0u);
    EXPECT_EQ(owner.detachData(), nullptr);
}

TEST(ParamCollection, TakesItsOwnBytes) {
    QVLParamCollection stream = streamOf("0301");
    stream.seekEnd();
    EXPECT_EQ(stream.addBytes(stream.getSize(), stream.getData()), kMemoryOk);
    EXPECT_EQ(hex(stream), "030105000000020301");
    EXPECT_EQ(stream.setData(stream.getSize() - 2, stream.getData() + 2), kMemoryOk);
    EXPECT_EQ(hex(stream), "05000000020301");
    QVLParamCollection text = streamOf("414200");
    EXPECT_EQ(text.addString(reinterpret_cast<const char*>(text.getData())), kMemoryOk);  // over its own characters
    EXPECT_EQ(text.getSize(), 10u);
    text.rewind();
    QVLParamCollection copy(text);
    EXPECT_EQ(copy.setData(0, copy.getData()), kMemoryOk);
    EXPECT_EQ(copy.getData(), nullptr);
    EXPECT_EQ(copy.setData(3, nullptr), kStreamFull);
}

struct Parameter : QVLParameter {
    int status = kMemoryOk;
    bool throws = false;
    std::string received = "none";

    int serialize(std::uint32_t& length, std::uint8_t*& data) override {
        if (throws) throw std::bad_alloc();
        if (status != kMemoryOk) return status;
        length = 2;
        data = new std::uint8_t[2]{0xCA, 0xFE};
        return status;
    }
    int deserialize(std::uint32_t length, const std::uint8_t* data) override {
        if (throws) throw std::bad_alloc();
        received = hexText(data, length);
        return status;
    }
};

TEST(ParamCollection, ParametersTravelAsBytes) {
    Parameter parameter;
    QVLParamCollection stream;
    EXPECT_EQ(stream.addParameter(parameter), kMemoryOk);
    parameter.status = 4711;
    EXPECT_EQ(stream.addParameter(parameter), 4711);
    parameter.throws = true;
    EXPECT_EQ(stream.addParameter(parameter), kStreamFull);
    EXPECT_EQ(hex(stream), "0500000002cafe");
    stream.rewind();
    EXPECT_EQ(stream.getParameter(parameter), kStreamFull);
    parameter.throws = false;
    const std::tuple<const char*, int, const char*> cases[] = {
        {"0500000002cafe", 4711, "cafe"}, {"0301", kWrongValueType, "none"}, {"0500000000", 4711, ""}};
    for (const auto& [wire, status, received] : cases) {
        parameter.received = "none";
        QVLParamCollection read = streamOf(wire);
        EXPECT_EQ(read.getParameter(parameter), status);
        EXPECT_EQ(parameter.received, received);
    }
}

}  // namespace
