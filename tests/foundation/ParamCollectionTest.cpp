// The typed stream.

#include "HexText.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string hex(const QVLParamCollection& stream) { return hexText(stream.getData(), stream.getSize()); }

QVLParamCollection streamOf(const std::string& digits) {
    Bytes bytes(digits.size() / 2 + 1);
    std::uint32_t count = 0;
    hexDecode(digits.c_str(), count, bytes.data());
    QVLParamCollection stream;
    EXPECT_EQ(stream.setData(count, bytes.data()), kMemoryOk);
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
    const struct {
        std::function<int(QVLParamCollection&)> add;
        const char* wire;
        char kind;
        const char* value;
    } cases[] = {
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
    for (const auto& c : cases) {
        EXPECT_EQ(c.add(all), kMemoryOk);
        wire += c.wire;
    }
    EXPECT_EQ(all.addString(nullptr), kMemoryOk);
    EXPECT_EQ(all.addBytes(1, nullptr), kStreamFull);
    EXPECT_EQ(hex(all), wire);

    all.rewind();
    QVLParamCollection received = streamOf(wire);
    for (QVLParamCollection* stream : {&all, &received}) {
        std::uint8_t type = 0;
        for (const auto& c : cases) {
            EXPECT_EQ(stream->peekType(type), kMemoryOk);
            EXPECT_EQ(type, static_cast<std::uint8_t>(c.wire[1] - '0'));
            EXPECT_EQ(read(*stream, c.kind), c.value) << c.wire;
        }
    }
    std::uint8_t type = 0;
    EXPECT_EQ(received.peekType(type), kStreamEnd);
}

TEST(ParamCollection, ReadsStopAtTheEndAndRefuseOtherTypes) {
    const struct {
        const char *wire, *reads, *last;  // outcome of the last read
    } cases[] = {
        {"", "s", "status 3037"},
        {"01", "s", "status 3037"},
        {"0107", "s", "status 3037"},
        {"02070707", "l", "status 3037"},
        {"03", "b", "status 3037"},
        {"010003", "l", "status 3041"},
        {"010103fe", "ls", "1022"},     // a refused type byte stays consumed
        {"0103", "sb", "status 3037"},  // and so does that of a value that is cut
        {"04000000", "t", "status 3037"},
        {"0500000000", "t", "status 3041"},
        {"0500000002aa", "x", "status 3037"},
        {"047fffffffaa", "t", "status 3037"},
        {"0480000000aa", "t", "status 3037"},
        {"04ffffffffaa", "t", "status 3037"},
        {"05ffffffffaa", "x", "status 3037"},
        {"05ffffffff03fe", "xb", "254"},
    };
    for (const auto& c : cases) {
        QVLParamCollection stream = streamOf(c.wire);
        std::string outcome;
        for (const char* kind = c.reads; *kind; ++kind)
            outcome = read(stream, *kind);
        EXPECT_EQ(outcome, c.last) << c.wire;
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
    stream.addByte(3);  // no room: behind the end
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
            EXPECT_EQ(original.getData(), third.getData());
            QVLParamCollection& writer = writerIsOriginal ? original : copy;
            write(writer);
            EXPECT_EQ(hex(writer), result);
            EXPECT_EQ(hex(writerIsOriginal ? copy : original), "0301");
            EXPECT_EQ(hex(third), "0301");
        }
    }
}

TEST(ParamCollection, SharedBuffersAreFreedOnceInAnyOrder) {
    for (int order = 0; order < 6; ++order) {
        std::optional<QVLParamCollection> objects[3];
        objects[0].emplace().addByte(1);
        objects[1] = objects[0];
        objects[2] = objects[1];
        *objects[0] = *objects[2];  // already shared
        const QVLParamCollection& same = *objects[1];
        *objects[1] = same;
        const int first = order % 3;
        objects[first].reset();
        objects[(first + 1 + order / 3) % 3].reset();
        for (auto& object : objects)
            EXPECT_EQ(object ? hex(*object) : "0301", "0301");
    }
    QVLParamCollection owner = streamOf("0301");
    { const QVLParamCollection passing(owner); }
    const std::uint8_t* buffer = owner.getData();
    const std::unique_ptr<std::uint8_t, decltype(&std::free)> detached(owner.detachData(), &std::free);
    EXPECT_EQ(detached.get(), buffer);  // the only owner hands over the buffer itself
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
    const struct {
        const char* wire;
        int status;
        const char* received;
    } cases[] = {{"0500000002cafe", 4711, "cafe"}, {"0301", kWrongValueType, "none"}, {"0500000000", 4711, ""}};
    for (const auto& c : cases) {
        parameter.received = "none";
        QVLParamCollection read = streamOf(c.wire);
        EXPECT_EQ(read.getParameter(parameter), c.status);
        EXPECT_EQ(parameter.received, c.received);
    }
}

}  // namespace
