#include "ByteHelpers.h"
#include "HexText.h"
#include "HostCalcCrc.h"
#include "Rc4.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
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
    const struct {
        const char* text;
        const char* again;  // what its bytes look like
    } cases[] = {
        {"", ""},
        {"0", ""},
        {"00ff7f80", "00ff7f80"},
        {"ABCDEFabcdef", "abcdefabcdef"},
        {"123", "12"},
        {"zz", "87"},
        {"1z", "27"},
        {"z1", "71"},
        {"0:0/0G0@0`0g", "171717171717"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(hex(fromHex(c.text)), c.again) << c.text;
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
    std::uint32_t count = 9;
    EXPECT_EQ(hexDecode(nullptr, count, nullptr), 0u);
    EXPECT_EQ(count, 0u);
}

TEST(ByteHelpers, ApplicationIdsBeginAtSix) {
    std::uint8_t out[2] = {0xEE, 0xEE};
    EXPECT_FALSE(aidToBytes(0, out));
    EXPECT_FALSE(aidToBytes(5, out));
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_TRUE(aidToBytes(6, out));
    EXPECT_EQ(hexText(out, 2), "0600");
    EXPECT_TRUE(aidToBytes(0xE103, out));
    EXPECT_EQ(hexText(out, 2), "03e1");
}

TEST(ByteHelpers, ValuesAreLittleEndianAndReadFromTheInvertedCopy) {
    const struct {
        std::int32_t value;
        const char* bytes;
        const char* inverted;
    } cases[] = {{0, "00000000", "ffffffff"},
                 {-1, "ffffffff", "00000000"},
                 {100, "64000000", "9bffffff"},
                 {0x12345678, "78563412", "87a9cbed"},
                 {INT32_MIN, "00000080", "ffffff7f"}};
    for (const auto& c : cases) {
        std::uint8_t out[4];
        valueToBytes(c.value, out);
        EXPECT_EQ(hexText(out, 4), c.bytes);
        EXPECT_EQ(decodeValue(fromHex(std::string("55555555") + c.inverted).data()), c.value);
    }
}

TEST(ByteHelpers, CeilDivAddsOneForARemainder) {
    const std::int16_t cases[][3] = {{0, 16, 0},  {1, 16, 1},        {16, 16, 1}, {17, 16, 2},
                                     {-5, 2, -1}, {32767, 1, 32767}, {7, 0, 0},   {-32768, -1, -32768}};
    for (const auto& c : cases)
        EXPECT_EQ(ceilDiv(c[0], c[1]), c[2]) << c[0] << " / " << c[1];
}

TEST(ByteHelpers, WipedBytesAreZeroAndTheNextOnesAreNot) {
    std::uint8_t key[] = {1, 2, 3, 4};
    wipe(key, 3);
    wipe(nullptr, 0);
    EXPECT_EQ(hexText(key, 4), "00000004");
}

TEST(HostCalcCrc, GivesThePublishedValues) {
    const struct {
        int mode;
        Bytes data;
        const char* crc;  // result bytes, "ee" where none is written
    } cases[] = {
        {0, fromText("123456789"), "05bf"},
        {0, fromHex("0000"), "a01e"},
        {0, fromHex("1234"), "26cf"},
        {0, fromHex("5000"), "57cd"},
        {0, fromHex("e050"), "bca5"},
        {0, {}, "6363"},
        {0x80, fromText("123456789"), "99ee"},
        {0x80, Bytes(31), "ceee"},
        {0x80, Bytes(47), "16ee"},
        {0x80, fromHex("01010801080108000000000000040003100310021002100000000000001130"), "89ee"},
        {0x80, {}, "c7ee"},
        {1, fromText("123456789"), "eeee"},
    };
    for (const auto& c : cases) {
        std::uint8_t result[2] = {0xEE, 0xEE};
        HostCalcCrc(static_cast<std::uint8_t>(c.mode), static_cast<std::uint32_t>(c.data.size()), c.data.data(),
                    result);
        EXPECT_EQ(hexText(result, 2), c.crc) << c.mode << ' ' << hex(c.data);
    }
    std::uint8_t untouched = 0xEE;
    HostCalcCrc(0x80, 1, nullptr, &untouched);
    EXPECT_EQ(untouched, 0xEE);
}

// The last three: first bytes of the key streams in RFC 6229.
TEST(Rc4, GivesThePublishedStreams) {
    const struct {
        Bytes key;
        Bytes plain;
        const char* cipher;
    } cases[] = {
        {fromText("Key"), fromText("Plaintext"), "bbf316e8d940af0ad3"},
        {fromText("Wiki"), fromText("pedia"), "1021bf0420"},
        {fromText("Secret"), fromText("Attack at dawn"), "45a01f645fc35b383552544b9bf5"},
        {fromHex("0102030405"), Bytes(16), "b2396305f03dc027ccc3524a0a1118a8"},
        {fromHex("0102030405060708090a0b0c0d0e0f10"), Bytes(16), "9ac7cc9a609d1ef7b2932899cde41b97"},
        {fromHex("833222772a"), Bytes(16), "80ad97bdc973df8a2e879e92a497efda"},
    };
    Rc4 stream;  // keyed anew each time
    for (const auto& c : cases) {
        Bytes data = c.plain;
        stream.setKey(c.key);
        stream.crypt(std::span(data).first(2));  // the stream runs on from call to call
        stream.crypt(std::span(data).subspan(2));
        EXPECT_EQ(hex(data), c.cipher);
        stream.setKey(c.key);
        stream.crypt(data);
        EXPECT_EQ(data, c.plain);
    }
}

TEST(Rc4, IsTheIdentityPermutationWithoutAKey) {
    Bytes first(3);
    Rc4 stream;
    stream.crypt(first);
    EXPECT_EQ(hex(first), "020507");
    Bytes again(3);
    stream.setKey({});
    stream.crypt(again);
    EXPECT_EQ(again, first);
}

}  // namespace
