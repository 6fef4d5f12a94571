#include "DataOptions.h"

#include "TagAccess.h"
#include "Text.h"

#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::size_t kLargestTag = 4096;

std::vector<std::uint8_t> bytesOfFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    std::vector<std::uint8_t> bytes(kLargestTag + 1);
    if (file) file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.is_open() || file.bad())
        throw std::invalid_argument(name + " cannot be read: " + std::generic_category().message(errno));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

std::vector<std::uint8_t> bytesOfDigits(const std::string& text) {
    auto bytes = bytesFromHex(text);
    if (!bytes) throw std::invalid_argument("\"" + text + "\" is not a list of bytes with two hexadecimal digits each");
    return *bytes;
}

}  // namespace

void addDataOptions(Options& options, DataArguments& data) {
    const auto take = [&data](std::vector<std::uint8_t> bytes) {
        if (bytes.size() > kLargestTag)
            throw std::invalid_argument("no tag holds more than " + std::to_string(kLargestTag) + " bytes");
        data.bytes = std::move(bytes);
    };
    const Option hex = options.text(
        "HEX", [take](const std::string& text) { take(bytesOfDigits(text)); }, "What to write, in hexadecimal");
    const Option text = options
                            .text(
                                "--text",
                                [take](const std::string& given) {
                                    take({given.begin(), given.end()});
                                },
                                "Write the bytes of this text")
                            .type("TEXT");
    const Option file = options
                            .text(
                                "--file", [take](const std::string& name) { take(bytesOfFile(name)); },
                                "Write the content of this file")
                            .type("FILE");
    options.whenRead([hex, text, file, &data] {
        if (hex.count() + text.count() + file.count() != 1)
            throw std::invalid_argument("give the data as HEX, with --text or with --file");
        if (data.bytes.empty()) throw std::invalid_argument("there is no data to write");
    });
}

int blockCountFromText(const std::string& text) {
    if (text == "all") return qvl::kAllBlocks;
    int count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || count < 1 || count > kLastBlock + 1)
        throw std::invalid_argument("a number of blocks is 1 to 256, or \"all\"");
    return count;
}
