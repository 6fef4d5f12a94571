#include "TagImage.h"

#include "CardScript.h"
#include "MifareClassicTag.h"
#include "Quoted.h"
#include "SmartCard.h"
#include "TagMemory.h"
#include "Type4Application.h"
#include "UltralightTag.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::string_view kSpecPrefix = "new:";
constexpr std::uint8_t kCascadeTag = 0x88;
constexpr std::size_t kMaxFile = 65536;

struct Kind {
    std::string_view name;
    std::size_t imageBytes;  ///< 0 for kinds without an image.
    Bytes uid;               ///< Of a tag as delivered.
};
const Kind* kindOf(std::string_view name) {
    static const Kind kKinds[] = {
        {"mini", 320, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"1k", 1024, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"4k", 4096, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"ultralight", UltralightTag::kImageBytes, {0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}},
        {"card", 0, {0x04, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6}},
    };
    const auto found = std::ranges::find(kKinds, name, &Kind::name);
    return found == std::end(kKinds) ? nullptr : &*found;
}
constexpr std::string_view kKindNames = "mini, 1k, 4k, ultralight, card";

/// ATS of a widely used card, without its length byte: 64-byte frames, three higher rates, FWI 8, CID but no NAD.
const Bytes kDefaultAts = {0x75, 0x77, 0x81, 0x02, 0x80};

MadeTag failure(std::string message) { return {nullptr, std::move(message)}; }

std::optional<Bytes> hexBytes(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
        digits += c;
    }
    if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// @return what is wrong, empty if nothing.
std::string readFile(const std::string& path, Bytes& out) {
    std::error_code problem;
    if (!std::filesystem::exists(path, problem)) return path + ": there is no such file";
    if (!std::filesystem::is_regular_file(path, problem)) return path + ": this is no file";
    if (std::filesystem::file_size(path, problem) > kMaxFile) return path + ": too large for a tag, at most 4096 bytes";
    std::ifstream file(path, std::ios::binary);
    out.assign(std::istreambuf_iterator<char>(file), {});
    return file ? std::string() : path + ": cannot be read";
}

std::string sizeComplaint(std::size_t size) {
    std::string text = std::to_string(size) + " bytes are no tag image; right are 320 (Mini), 1024 (1K), 4096 (4K) and "
                                              "64 (Ultralight)";
    if (size == 1152) text += "; cut the 1152 bytes of an EV1 dump to the first 1024";
    if (size == 2048) text += "; the 2K chip is not simulated";
    return text;
}

bool xorsTo(std::span<const std::uint8_t> bytes, std::uint8_t start, std::uint8_t check) {
    for (std::uint8_t byte : bytes)
        start ^= byte;
    return start == check;
}

std::string checkByteWarning(const Bytes& image) {
    const std::span<const std::uint8_t> bytes(image);
    constexpr const char* kUltralight = "warning: a check byte of the UID is wrong, real chips never have that";
    constexpr const char* kClassic =
        "warning: byte 4 of block 0 is not the check byte of a UID of four bytes; for a UID "
        "of seven bytes describe the tag in a .card file";
    if (image.size() == UltralightTag::kImageBytes)
        return xorsTo(bytes.first(3), kCascadeTag, bytes[3]) && xorsTo(bytes.subspan(4, 4), 0, bytes[8]) ? ""
                                                                                                         : kUltralight;
    return xorsTo(bytes.first(4), 0, bytes[4]) ? "" : kClassic;
}

MadeTag fromImage(Bytes image) {
    std::string warning;
    if (image.size() == UltralightTag::kImageBytes) {
        warning = checkByteWarning(image);
        return {std::make_shared<UltralightTag>(std::move(image)), warning};
    }
    if (!MifareClassicTag::isImageSize(image.size())) return failure(sizeComplaint(image.size()));
    warning = checkByteWarning(image);
    return {std::make_shared<MifareClassicTag>(std::move(image)), warning};
}

/// A tag of this kind with this UID; `image` is empty for one as delivered. ATS and application are for cards.
MadeTag fromParts(const Kind& kind, const Bytes& uid, Bytes image, const Bytes& ats,
                  std::unique_ptr<CardApplication> application = nullptr) {
    const auto complain = [&](const char* right) {
        return failure("a UID of " + std::to_string(uid.size()) + " bytes does not fit the kind \"" +
                       std::string(kind.name) + "\": " + right);
    };
    if (kind.imageBytes == 0) {
        if (uid.size() != 4 && uid.size() != 7 && uid.size() != 10) return complain("4, 7 or 10 bytes");
        return {std::make_shared<SmartCard>(uid, ats, std::move(application)), {}};
    }
    if (kind.imageBytes == UltralightTag::kImageBytes) {
        if (uid.size() != 7) return complain("7 bytes");
        return {std::make_shared<UltralightTag>(image.empty() ? UltralightTag::blankImage(uid) : std::move(image)), {}};
    }
    if (uid.size() != 4 && uid.size() != 7) return complain("4 or 7 bytes");
    if (image.empty()) image = MifareClassicTag::blankImage(kind.imageBytes, uid);
    return {std::make_shared<MifareClassicTag>(std::move(image), uid), {}};
}

MadeTag fromSpec(std::string_view spec) {
    const std::size_t colon = std::min(spec.find(':'), spec.size());
    const Kind* kind = kindOf(spec.substr(0, colon));
    if (!kind)
        return failure(quoted(spec.substr(0, colon)) + " is no kind of tag; known are " + std::string(kKindNames));
    if (colon == spec.size()) return fromParts(*kind, kind->uid, {}, kDefaultAts);
    const auto uid = hexBytes(spec.substr(colon + 1));
    if (!uid) return failure(quoted(spec.substr(colon + 1)) + " is no UID: pairs of hexadecimal digits");
    return fromParts(*kind, *uid, {}, kDefaultAts);
}

bool isCardFile(const std::string& path) { return path.ends_with(".card"); }

/// The lines of a .card file.
struct Description {
    const Kind* kind = nullptr;
    Bytes uid, ats = kDefaultAts;
    std::optional<std::uint16_t> atqa;
    std::optional<std::uint8_t> sak;
    std::string image, ndef;  ///< Paths, empty for none.
    std::vector<CardRule> rules;
    TagQuirks quirks;
};

std::string takeQuirk(std::string_view name, TagQuirks& quirks) {
    struct Switch {
        std::string_view name;
        bool TagQuirks::*member;
    };
    static constexpr Switch kSwitches[] = {
        {"readable-key-b-refused", &TagQuirks::readableKeyBRefused},
        {"partial-trailer-refused", &TagQuirks::partialTrailerWriteRefused},
        {"last-uid-bytes", &TagQuirks::lastUidBytesAuthenticate},
        {"strict-cid", &TagQuirks::strictCid},
        {"undeclared-cid-taken", &TagQuirks::undeclaredCidTaken},
        {"fresh-uid", &TagQuirks::freshUid},
    };
    std::string known;
    for (const Switch& each : kSwitches) {
        if (each.name == name) {
            quirks.*each.member = true;
            return {};
        }
        known += (known.empty() ? "" : ", ") + std::string(each.name);
    }
    return quoted(name) + " is no quirk; known are " + known;
}

std::string takeHex(std::string_view value, std::size_t least, std::size_t most, Bytes& out) {
    const auto bytes = hexBytes(value);
    if (bytes && bytes->size() >= least && bytes->size() <= most) {
        out = *bytes;
        return {};
    }
    const std::string count =
        least == most ? std::to_string(most) : std::to_string(least) + " to " + std::to_string(most);
    return quoted(value) + " is not " + count + " bytes in hexadecimal";
}

std::string trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r";
    const std::size_t begin = text.find_first_not_of(kBlank);
    if (begin == std::string_view::npos) return {};
    return std::string(text.substr(begin, text.find_last_not_of(kBlank) - begin + 1));
}

/// Hands word and value of each line to `take`, which says what is wrong with it. @return that with file and line.
template <typename Take>
std::string readLines(const std::string& path, Take take) {
    Bytes content;
    if (std::string wrong = readFile(path, content); !wrong.empty()) return wrong;
    std::istringstream lines(std::string(content.begin(), content.end()));
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const std::string text = trimmed(line.substr(0, line.find('#')));
        if (text.empty()) continue;
        const std::size_t blank = std::min(text.find_first_of(" \t"), text.size());
        const std::string wrong = take(text.substr(0, blank), trimmed(text.substr(blank)));
        if (!wrong.empty()) return std::string(path).append(": line " + std::to_string(number) + ": ").append(wrong);
    }
    return {};
}

std::string takeRule(std::string_view text, std::vector<CardRule>& rules) {
    CardRule rule;
    std::string wrong = parseCardRule(text, rule);
    if (wrong.empty()) rules.push_back(std::move(rule));
    return wrong;
}

std::string readScript(const std::string& path, std::vector<CardRule>& rules) {
    return readLines(path, [&rules](std::string_view word, std::string_view value) {
        return word == "answer" ? takeRule(value, rules) : quoted(word) + " is unknown; a script has \"answer\" only";
    });
}

/// Path of a file that the description at `path` names.
std::string besideOf(const std::string& path, std::string_view name) {
    return (std::filesystem::path(path).parent_path() / name).string();
}

std::string takeLine(const std::string& path, std::string_view word, std::string_view value, Description& into) {
    constexpr std::size_t kMaxAts = 19;
    Bytes bytes;
    std::string wrong;
    if (word == "kind") {
        into.kind = kindOf(value);
        return into.kind ? std::string() : quoted(value) + " is no kind of tag; known are " + std::string(kKindNames);
    }
    if (word == "uid") return takeHex(value, 4, 10, into.uid);
    if (word == "ats") return takeHex(value, 1, kMaxAts, into.ats);
    if (word == "quirk") return takeQuirk(value, into.quirks);
    if (word == "answer") return takeRule(value, into.rules);
    if (word == "image" || word == "ndef" || word == "script") {
        if (value.empty()) return quoted(word) + " takes the name of a file";
        const std::string file = besideOf(path, value);
        if (word == "script") return readScript(file, into.rules);
        (word == "image" ? into.image : into.ndef) = file;
        return {};
    }
    if (word == "sak") {
        if (wrong = takeHex(value, 1, 1, bytes); wrong.empty()) into.sak = bytes[0];
        return wrong;
    }
    if (word == "atqa") {
        if (wrong = takeHex(value, 2, 2, bytes); wrong.empty())
            into.atqa = static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
        return wrong;
    }
    return quoted(word) + " is unknown; known are kind, uid, ats, sak, atqa, image, ndef, answer, script, quirk";
}

/// @return what is wrong, empty if nothing.
std::string readDescription(const std::string& path, Description& description) {
    std::string wrong = readLines(
        path, [&](std::string_view word, std::string_view value) { return takeLine(path, word, value, description); });
    if (!wrong.empty()) return wrong;
    if (!description.kind) return path + ": a line \"kind\" is missing, with one of " + std::string(kKindNames);
    if (description.uid.empty()) description.uid = description.kind->uid;
    if (description.kind->imageBytes != 0 && !(description.rules.empty() && description.ndef.empty()))
        return path + ": \"answer\", \"script\" and \"ndef\" go with the kind \"card\" only";
    return {};
}

/// @return what is wrong with the NDEF file, empty if nothing.
std::string readNdef(const std::string& path, Bytes& file) {
    constexpr std::size_t kLengthBytes = 2;
    if (std::string wrong = readFile(path, file); !wrong.empty()) return wrong;
    if (file.size() < Type4Application::kMinFile || file.size() > Type4Application::kMaxFile)
        return path + ": " + std::to_string(file.size()) + " bytes are no NDEF file of a Type 4 Tag; right are " +
               std::to_string(Type4Application::kMinFile) + " to " + std::to_string(Type4Application::kMaxFile);
    const std::size_t message = static_cast<std::size_t>(file[0]) << 8 | file[1];
    const std::size_t room = file.size() - kLengthBytes;
    if (message <= room) return {};
    return path + ": the first two bytes announce a message of " + std::to_string(message) + " bytes, but only " +
           std::to_string(room) + " follow";
}

/// What answers the commands of the card: its rules, after them the NDEF application; null for neither.
std::string makeApplication(const Description& description, std::unique_ptr<CardApplication>& out) {
    if (!description.ndef.empty()) {
        Bytes file;
        if (std::string wrong = readNdef(description.ndef, file); !wrong.empty()) return wrong;
        out = std::make_unique<Type4Application>(std::move(file));
    }
    if (!description.rules.empty()) out = std::make_unique<CardScript>(description.rules, std::move(out));
    return {};
}

MadeTag fromDescription(const std::string& path) {
    Description description;
    if (std::string wrong = readDescription(path, description); !wrong.empty()) return failure(std::move(wrong));
    Bytes image;
    if (!description.image.empty()) {
        if (std::string wrong = readFile(description.image, image); !wrong.empty()) return failure(std::move(wrong));
        if (image.size() != description.kind->imageBytes)
            return failure(description.image + ": the kind \"" + std::string(description.kind->name) + "\" has " +
                           std::to_string(description.kind->imageBytes) + " bytes, this file " +
                           std::to_string(image.size()));
    }
    std::unique_ptr<CardApplication> application;
    if (std::string wrong = makeApplication(description, application); !wrong.empty()) return failure(std::move(wrong));
    MadeTag made =
        fromParts(*description.kind, description.uid, std::move(image), description.ats, std::move(application));
    if (!made.tag) return failure(path + ": " + made.message);
    if (description.sak) made.tag->setSak(*description.sak);
    if (description.atqa) made.tag->setAtqa(*description.atqa);
    made.tag->quirks() = description.quirks;
    return made;
}

/// What is switched on in either.
TagQuirks both(const TagQuirks& a, const TagQuirks& b) {
    return {a.readableKeyBRefused || b.readableKeyBRefused,
            a.partialTrailerWriteRefused || b.partialTrailerWriteRefused,
            a.lastUidBytesAuthenticate || b.lastUidBytesAuthenticate,
            a.strictCid || b.strictCid,
            a.undeclaredCidTaken || b.undeclaredCidTaken,
            a.freshUid || b.freshUid};
}

MadeTag fromFile(const std::string& path) {
    Bytes image;
    if (std::string wrong = readFile(path, image); !wrong.empty()) return failure(std::move(wrong));
    MadeTag made = fromImage(std::move(image));
    if (!made.message.empty()) made.message = path + ": " + made.message;
    return made;
}

}  // namespace

MadeTag makeTag(const std::string& pathOrSpec, const TagQuirks& quirks) {
    MadeTag made = pathOrSpec.starts_with(kSpecPrefix)
                       ? fromSpec(std::string_view(pathOrSpec).substr(kSpecPrefix.size()))
                   : isCardFile(pathOrSpec) ? fromDescription(pathOrSpec)
                                            : fromFile(pathOrSpec);
    if (made.tag) made.tag->quirks() = both(made.tag->quirks(), quirks);
    return made;
}

std::string saveTag(VirtualTag& tag, const std::string& path) {
    const TagMemory* memory = tag.memory();
    if (!memory) return std::string("a ") + tag.kind() + " has no memory to save";
    const std::string fresh = path + ".new";
    std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(memory->bytes().data()), static_cast<std::streamsize>(memory->size()));
    file.close();
    if (file && std::rename(fresh.c_str(), path.c_str()) == 0) return {};
    std::remove(fresh.c_str());
    return path + ": cannot be written";
}

std::string imagePathOf(const std::string& pathOrSpec) {
    if (pathOrSpec.starts_with(kSpecPrefix)) return {};
    if (!isCardFile(pathOrSpec)) return pathOrSpec;
    Description description;
    if (!readDescription(pathOrSpec, description).empty()) return {};
    return description.image.empty() ? description.ndef : description.image;
}
