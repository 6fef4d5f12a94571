// Hex text, byte orders, check sums and the stream cipher.

#include "ByteHelpers.h"
#include "HexText.h"
#include "HostCalcCrc.h"
#include "Rc4.h"
#include "SecretBytes.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fromHex(const std::string& text) {
    Bytes bytes(text.size() / 2);
    std::uint32_t count = 0;
    hexDecode(text.c_str(), count, bytes.data());
    return bytes;
}

Bytes fromText(const std::string& text) { return {text.begin(), text.end()}; }

std::string hex(const Bytes& bytes) { return hexText(bytes.data(), bytes.size()); }

TEST(HexText, GoesBothWays) {
    const std::pair<const char*, const char*> cases[] = {{"0", ""},
                                                         {"00ff7f80", "00ff7f80"},
                                                         {"ABCDEFabcdef", "abcdefabcdef"},
                                                         {"123", "12"},
                                                         {"zz", "87"},
                                                         {"1z", "27"},
                                                         {"z1", "71"},
                                                         {"0:0/0G0@0`0g", "171717171717"}};
    for (const auto& [text, again] : cases)
        EXPECT_EQ(hex(fromHex(text)), again) << text;
}

TEST(HexText, FillsNoMoreThanItsBuffer) {
    const std::uint8_t bytes[] = {0x04, 0xA1, 0xFF};
    char text[8];
    std::fill(std::begin(text), std::end(text), '#');
    hexDump(bytes, 3, text);
    EXPECT_STREQ(text, "04a1ff");
    EXPECT_EQ(text[7], '#');
    hexDump(nullptr, 3, text);
    EXPECT_EQ(std::string(text, 8), std::string("\0\0\0\0\0\0\0#", 8));

    EXPECT_STREQ(std::unique_ptr<char[]>(hexEncode(bytes, 3)).get(), "04a1ff");
    EXPECT_STREQ(std::unique_ptr<char[]>(hexEncode(bytes, 0)).get(), "");
    EXPECT_EQ(hexEncode(nullptr, 3), nullptr);
    EXPECT_EQ(hexText(nullptr, 3), "");
    EXPECT_STREQ(HexLine(bytes, 3, 1).text(), "04****") << "what may be a key is not shown";
    EXPECT_STREQ(HexLine(bytes, 3, 9).text(), "04a1ff");
    std::uint32_t count = 9;
    EXPECT_EQ(hexDecode(nullptr, count, nullptr), 0u);
    EXPECT_EQ(count, 0u);
}

TEST(SecretBytes, AreWipedAtTheirEnd) {
    using Secret = SecretBytes<8>;
    alignas(Secret) std::uint8_t place[sizeof(Secret)];
    std::uint8_t others[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    auto* secret = new (place) Secret;
    secret->fill(0x5A);
    {
        const WipedAtEnd wiped(others, 7);
        secret->~Secret();
    }
    EXPECT_EQ(hex({place, place + 8}), "0000000000000000");
    EXPECT_EQ(hex({others, others + 8}), "0000000000000008");
}

TEST(ByteHelpers, KeepToTheirCorners) {
    std::uint8_t out[4] = {0xEE, 0xEE, 3, 4};
    EXPECT_FALSE(aidToBytes(5, out));
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_TRUE(aidToBytes(0xE103, out));
    EXPECT_EQ(hexText(out, 4), "03e10304");
    wipe(out, 3);
    wipe(nullptr, 0);
    EXPECT_EQ(hexText(out, 4), "00000004");
    const std::int16_t quotients[][3] = {{0, 16, 0}, {1, 16, 1}, {16, 16, 1}, {17, 16, 2}, {-5, 2, -1}, {7, 0, 0}};
    for (const auto& c : quotients)
        EXPECT_EQ(ceilDiv(c[0], c[1]), c[2]) << c[0] << " / " << c[1];
}

TEST(HostCalcCrc, GivesThePublishedValues) {
    // Mode, data, and the result bytes, "ee" where none is written.
    const std::tuple<std::uint8_t, Bytes, const char*> cases[] = {
        {0, fromText("123456789"), "05bf"},
        {0, fromHex("1234"), "26cf"},
        {0, fromHex("e050"), "bca5"},
        {0, {}, "6363"},
        {0x80, fromText("123456789"), "99ee"},
        {0x80, Bytes(47), "16ee"},
        {0x80, fromHex("01010801080108000000000000040003100310021002100000000000001130"), "89ee"},
        {0x80, {}, "c7ee"},
        {1, fromText("123456789"), "eeee"},
    };
    for (const auto& [mode, data, crc] : cases) {
        std::uint8_t result[2] = {0xEE, 0xEE};
        HostCalcCrc(mode, static_cast<std::uint32_t>(data.size()), data.data(), result);
        EXPECT_EQ(hexText(result, 2), crc) << int{mode} << ' ' << hex(data);
    }
    std::uint8_t untouched = 0xEE;
    HostCalcCrc(0x80, 1, nullptr, &untouched);
    EXPECT_EQ(untouched, 0xEE);
}

// The last two: first bytes of the key streams in RFC 6229.
TEST(Rc4, GivesThePublishedStreams) {
    const std::tuple<Bytes, Bytes, const char*> cases[] = {
        {fromText("Secret"), fromText("Attack at dawn"), "45a01f645fc35b383552544b9bf5"},
        {fromHex("0102030405"), Bytes(16), "b2396305f03dc027ccc3524a0a1118a8"},
        {fromHex("0102030405060708090a0b0c0d0e0f10"), Bytes(16), "9ac7cc9a609d1ef7b2932899cde41b97"},
    };
    Rc4 stream;  // keyed anew each time
    for (const auto& [key, plain, cipher] : cases) {
        Bytes data = plain;
        stream.setKey(key);
        stream.crypt(std::span(data).first(2));  // the stream runs on from call to call
        stream.crypt(std::span(data).subspan(2));
        EXPECT_EQ(hex(data), cipher);
    }
    Rc4 unkeyed;
    stream.setKey({});
    for (Rc4* each : {&unkeyed, &stream}) {
        Bytes data(3);
        each->crypt(data);
        EXPECT_EQ(hex(data), "020507") << "without a key, the identity permutation";
    }
}

}  // namespace
