#include "KeyRingOptions.h"

#include "KeyText.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kLongestKeyFile = 65536;

bool isImage(std::size_t size) {
    return size == qvl::Geometry::of(kTagStandard)->bytes() || size == qvl::Geometry::of(kTag4K)->bytes();
}

/// A key on a line; # begins a comment.
void readList(qvl::KeyRing& keys, const std::string& name, std::string_view text) {
    for (std::size_t begin = 0, number = 1; begin < text.size(); ++number) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        std::size_t length = std::min(text.find('#', begin), end) - begin;
        while (length > 0 && std::isspace(static_cast<unsigned char>(text[begin + length - 1])))
            --length;
        try {
            if (length > 0) keys.add(keyFromDigits(text.substr(begin, length)));
        } catch (const std::invalid_argument& wrong) {
            throw std::invalid_argument(name + ", line " + std::to_string(number) + ": " + wrong.what());
        }
        begin = end + 1;
    }
}

void readFile(qvl::KeyRing& keys, const std::string& name) {
    SecretText file;
    file.readFile(name, kLongestKeyFile);
    if (isImage(file.text.size()))
        keys.addImage({reinterpret_cast<const std::uint8_t*>(file.text.data()), file.text.size()});
    else
        readList(keys, name, file.text);
}

}  // namespace

void addKeyRingOptions(Options& options, qvl::KeyRing& keys) {
    options
        .text(
            "--key", [&keys](const std::string& text) { keys.addA(keyFromText(text)); },
            "Key A of the sectors; factory and mad are tried if nothing is given")
        .type("KEY");
    options
        .text(
            "--key-b", [&keys](const std::string& text) { keys.addB(keyFromText(text)); }, "Key B of the sectors")
        .type("KEY");
    options
        .text(
            "--keys", [&keys](const std::string& name) { readFile(keys, name); },
            "More keys: a file with one on a line, each tried as A and B,\nor an image file whose trailers hold them")
        .type("FILE");
}
