// "dump": a tag into an image file, as far as its keys reach.

#include "AccessText.h"
#include "Command.h"
#include "FromLibrary.h"
#include "KeyRing.h"
#include "PrivateFile.h"
#include "Progress.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "TagLayout.h"
#include "Text.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::uint8_t kPlain = 0x69, kWithDirectory = 0xC1;  // byte 9 of a trailer
constexpr std::size_t kAccess = 6, kGeneralPurpose = 9, kKeyB = 10;
constexpr int kFirstFreePage = 2;
constexpr std::uint8_t kCascadeTag = 0x88;

struct DumpArguments {
    TagAccess access;  // the UID alone
    KeyRing keys;
    std::string file;
};

/// What came of each block.
struct DumpReport {
    std::vector<int> read;       ///< Straight from the tag.
    std::vector<int> composed;   ///< Trailers, from keys and conditions; on an Ultralight what the UID says.
    std::vector<int> unprovenB;  ///< Trailers whose key B could not be tried.
    std::vector<int> missing;    ///< Zeros in the image.
};

class Dump {
  public:
    Dump(Session& session, const KeyRing& keys, const TagUID& tag, const TagLayout& layout)
        : mSession(session), mKeys(keys), mTag(tag), mLayout(layout), mImage(layout.bytes()) {}
    ~Dump() { ::explicit_bzero(mImage.data(), mImage.size()); }
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;

    /// @return success, also where blocks are missing, or why it cannot go on.
    int run() {
        Progress progress(mSession, "Reading sector", mLayout.sectors);
        for (int sector = 0; sector < mLayout.sectors; ++sector) {
            if (!progress.begins(sector)) return kCancelled;
            const int status = mLayout.hasTrailers ? readSector(sector) : readPages();
            if (status != kOk) return status;
        }
        return kOk;
    }
    const std::vector<std::uint8_t>& image() const { return mImage; }
    const DumpReport& report() const { return mReport; }

  private:
    std::uint8_t* at(int block) { return mImage.data() + block * mLayout.blockSize; }

    int readSector(int number) {
        OpenSector sector;
        if (const int status = openSector(mSession, mTag, number, mKeys, sector); status != kOk) return status;
        std::vector<int> left;
        for (int block = mLayout.firstBlock(number); block < mLayout.trailerOf(number); ++block)
            left.push_back(block);
        for (const AuthKeyMode mode : {AuthKeyA, AuthKeyB})
            if (sector.key(mode))
                if (const int status = readBlocks(left, mode, *sector.key(mode)); status != kOk) return status;
        mReport.missing.insert(mReport.missing.end(), left.begin(), left.end());
        if (!sector.isOpen()) {
            mReport.missing.push_back(mLayout.trailerOf(number));
            return kOk;
        }
        return composeTrailer(number, sector);
    }

    /// Reads what is `left`, run by run, and leaves there what could not be read.
    int readBlocks(std::vector<int>& left, AuthKeyMode mode, const Key& key) {
        std::vector<int> failed;
        for (std::size_t begin = 0, end = 0; begin < left.size(); begin = end) {
            for (end = begin + 1; end < left.size() && left[end] == left[end - 1] + 1;)
                ++end;
            FromLibrary<std::uint8_t> data(mSession.adaptor());
            Records records(mSession.adaptor());
            int length = 0;
            const int status =
                mSession.adaptor().getBlockData(0, TagAppNone, mTag, 0, mode, key.data(),
                                                static_cast<short>(left[begin]), static_cast<short>(end - begin),
                                                data.out(), length, AuthKeyA, nullptr, records.count(), records.list());
            if (status != kOk && status != kPartial) return status;
            const auto size = static_cast<std::size_t>(mLayout.blockSize);
            for (std::size_t i = 0; i < records.all().size() && (i + 1) * size <= static_cast<std::size_t>(length);
                 ++i) {
                const int block = left[begin + i];
                if (records.all()[i].status == kOk) {
                    std::memcpy(at(block), data.get() + i * size, size);
                    mReport.read.push_back(block);
                } else {
                    failed.push_back(block);
                }
            }
        }
        left = failed;
        return kOk;
    }

    int composeTrailer(int number, const OpenSector& sector) {
        const int block = mLayout.trailerOf(number);
        std::uint8_t* trailer = at(block);
        if (sector.keyA) std::memcpy(trailer, sector.keyA->data(), Key::kSize);
        const auto access = accessBytes(sector.conditions);
        std::ranges::copy(access, trailer + kAccess);
        trailer[kGeneralPurpose] = number == 0 && hasDirectory(sector) ? kWithDirectory : kPlain;
        const auto guesses = mKeys.candidates(number, AuthKeyB);
        if (sector.keyB) {
            std::memcpy(trailer + kKeyB, sector.keyB->data(), Key::kSize);
        } else if (sector.trailer().keyBIsData() && !guesses.empty()) {
            std::memcpy(trailer + kKeyB, guesses.front().data(), Key::kSize);
            mReport.unprovenB.push_back(block);
        }
        const bool keyBMissing = !sector.keyB && (!sector.trailer().keyBIsData() || guesses.empty());
        (!sector.keyA || keyBMissing ? mReport.missing : mReport.composed).push_back(block);
        return kOk;
    }

    bool hasDirectory(const OpenSector& sector) {
        AuthKeyMode mode = AuthKeyA;
        const Key* key = sector.keyFor(withEither, mode);
        short words[16];
        return mSession.adaptor().getAppIdDir(0, TagAppMad1, mTag, words, mode, key->data()) == kOk;
    }

    /// Pages 0 and 1 are no data to the library, but they are the UID.
    int readPages() {
        std::vector<int> left;
        for (int page = kFirstFreePage; page < mLayout.blocks; ++page)
            left.push_back(page);
        if (const int status = readBlocks(left, AuthKeyA, Key::factory()); status != kOk) return status;
        mReport.missing = left;
        const std::uint8_t* uid = mTag.getUid();
        constexpr std::uint32_t kUidLength = 7;
        if (mTag.getUidLen() != kUidLength) {
            mReport.missing.insert(mReport.missing.begin(), {0, 1});
            return kOk;
        }
        std::copy(uid, uid + 3, at(0));
        at(0)[3] = static_cast<std::uint8_t>(kCascadeTag ^ uid[0] ^ uid[1] ^ uid[2]);
        std::copy(uid + 3, uid + kUidLength, at(1));
        mReport.composed = {0, 1};
        return kOk;
    }

    Session& mSession;
    const KeyRing& mKeys;
    const TagUID& mTag;
    const TagLayout mLayout;
    std::vector<std::uint8_t> mImage;
    DumpReport mReport;
};

void tell(Session& session, const DumpArguments& arguments, const TagUID& tag, const TagLayout& layout,
          const DumpReport& report) {
    const std::string composed = layout.hasTrailers
                                     ? counted(report.composed.size(), "trailer") + ", from keys and conditions"
                                     : counted(report.composed.size(), "block") + ", from the UID";
    const bool noneProven = report.unprovenB.size() == report.composed.size();
    const std::pair<std::string, std::string> rows[] = {
        {"Tag", uidText(tag) + ", " + typeText(tag)},
        {"File", arguments.file + ", " + counted(static_cast<std::size_t>(layout.blocks), "block")},
        {"Read", counted(report.read.size(), "block")},
        {"Composed", report.composed.empty() ? "" : composed},
        {"Key B not proven", report.unprovenB.empty() ? ""
                             : noneProven             ? "in any trailer"
                                                      : "in " + named("block", report.unprovenB)},
        {"Missing", report.missing.empty() ? "" : named("block", report.missing)},
    };
    session.output().put({{"uid", uidText(tag)},
                          {"type", typeText(tag)},
                          {"file", arguments.file},
                          {"blocks", layout.blocks},
                          {"read", report.read},
                          {"composed", report.composed},
                          {"keyBNotProven", report.unprovenB},
                          {"missing", report.missing}},
                         alignedRows(rows));
}

Outcome dumpTag(Session& session, const DumpArguments& arguments, const TagUID& tag) {
    const auto layout = TagLayout::of(tag.getTagType());
    if (!layout) return session.fail(kNotAllowedHere, typeText(tag));
    Dump dump(session, arguments.keys, tag, *layout);
    if (const int status = dump.run(); status != kOk) return session.fail(status);
    const std::string complaint = writePrivateFile(arguments.file, dump.image());
    if (!complaint.empty()) return session.output().error({Outcome::failed, "file", complaint, "", 0});
    DumpReport report = dump.report();
    for (auto* each : {&report.read, &report.missing})
        std::ranges::sort(*each);
    tell(session, arguments, tag, *layout, report);
    if (report.missing.empty()) return Outcome::done;
    return session.output().error({Outcome::failed, "incomplete", "blocks are missing from the image",
                                   "Other keys may open them: --key, --key-b, --keys.", 0});
}

}  // namespace

Work setUpDump(Options& options) {
    const auto arguments = std::make_shared<DumpArguments>();
    options.value("FILE", arguments->file, "The image file, block 0 upwards").required().type("");
    arguments->keys.addOptions(options);
    addUidOption(options, arguments->access);
    options.footer("The library reads no trailers: they are put together from the keys that have opened the\n"
                   "sector and from its conditions. A key B that can be read on the tag cannot be tried; then the\n"
                   "one given is taken, and named as not proven. Blocks that are missing are zero in the image.\n"
                   "The file holds keys and so is for its owner alone.\n\n"
                   "Example: qvltag dump tag.mfd --keys known.keys");
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) { return dumpTag(session, *arguments, tag); });
    };
}
