#include "KeyRing.h"

#include "ServiceStatus.h"
#include "TagAccess.h"
#include "TagLayout.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace {

constexpr std::size_t kLongestKeyFile = 65536;
constexpr std::size_t kTrailerSize = 16, kKeyB = 10;

Key keyAt(const std::string& image, std::size_t offset) {
    return Key(std::span<const std::uint8_t, Key::kSize>(reinterpret_cast<const std::uint8_t*>(image.data()) + offset,
                                                         Key::kSize));
}

}  // namespace

void KeyRing::addOptions(Options& options) {
    addKeyOption(options, "--key", mKeyA, "Key A of the sectors; factory and mad are tried if nothing is given");
    addKeyOption(options, "--key-b", mKeyB, "Key B of the sectors");
    options
        .text(
            "--keys", [this](const std::string& name) { readFile(name); },
            "More keys: a file with one on a line, each tried as A and B,\nor an image file whose trailers hold them")
        .type("FILE");
}

void KeyRing::readFile(const std::string& name) {
    SecretText file;
    file.readFile(name, kLongestKeyFile);
    for (const std::uint32_t type : {kTagStandard, kTag4K}) {
        const TagLayout layout = *TagLayout::of(type);
        if (file.text.size() != layout.bytes()) continue;
        for (int sector = 0; sector < layout.sectors; ++sector) {
            const auto trailer = static_cast<std::size_t>(layout.trailerOf(sector)) * kTrailerSize;
            mImageA.push_back(keyAt(file.text, trailer));
            mImageB.push_back(keyAt(file.text, trailer + kKeyB));
        }
        return;
    }
    int number = 0;
    for (std::size_t begin = 0; begin < file.text.size(); ++number) {
        const std::size_t end = std::min(file.text.find('\n', begin), file.text.size());
        std::size_t length = std::min(file.text.find('#', begin), end) - begin;
        while (length > 0 && std::isspace(static_cast<unsigned char>(file.text[begin + length - 1])))
            --length;
        try {
            if (length > 0) mBoth.push_back(keyFromDigits(std::string_view(file.text).substr(begin, length)));
        } catch (const std::invalid_argument& wrong) {
            throw std::invalid_argument(name + ", line " + std::to_string(number + 1) + ": " + wrong.what());
        }
        begin = end + 1;
    }
}

std::vector<Key> KeyRing::candidates(int sector, AuthKeyMode mode) const {
    std::vector<Key> all;
    const bool asA = mode == AuthKeyA;
    const auto& own = asA ? mKeyA : mKeyB;
    const auto& image = asA ? mImageA : mImageB;
    if (own) all.push_back(*own);
    if (static_cast<std::size_t>(sector) < image.size() && !image[static_cast<std::size_t>(sector)].isBlank())
        all.push_back(image[static_cast<std::size_t>(sector)]);
    all.insert(all.end(), mBoth.begin(), mBoth.end());
    if (!mKeyA && !mKeyB && mBoth.empty() && mImageA.empty()) {
        all.push_back(Key::factory());
        if (asA) all.push_back(Key::directory());
    }
    return all;
}

const Key* OpenSector::keyFor(Who who, AuthKeyMode& mode) const {
    for (const AuthKeyMode each : {AuthKeyA, AuthKeyB})
        if (allows(who, each) && key(each)) {
            mode = each;
            return &*key(each);
        }
    return nullptr;
}

int openSector(Session& session, const TagUID& tag, int number, const KeyRing& keys, OpenSector& sector) {
    for (const AuthKeyMode mode : {AuthKeyA, AuthKeyB}) {
        // A key B that can be read opens nothing: there is no way to try it.
        if (mode == AuthKeyB && sector.keyA && sector.trailer().keyBIsData()) break;
        for (const Key& key : keys.candidates(number, mode)) {
            std::array<DataAccControl, 4> conditions{};
            const int status =
                session.adaptor().getSectorAccessMode(0, TagAppNone, tag, static_cast<short>(number), mode, key.data(),
                                                      0, conditions.data(), AuthKeyA, nullptr);
            if (status == kTrailerNotRead || status == kKeyRefused) continue;
            if (status == kAccessRefused) return kOk;  // Invalid bits: such a sector opens for nobody any more.
            if (status != kOk) return status;
            sector.conditions = conditions;
            (mode == AuthKeyA ? sector.keyA : sector.keyB) = key;
            break;
        }
    }
    return kOk;
}
