// "restore": an image file onto a tag.

#include "AccessText.h"
#include "Command.h"
#include "DataOptions.h"
#include "KeyRing.h"
#include "Progress.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "TagLayout.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kLargestImage = 4096;
constexpr std::uint8_t kPlain = 0x69;  // byte 9 of a trailer
constexpr std::size_t kAccess = 6, kGeneralPurpose = 9, kKeyB = 10;
constexpr int kFirstUserPage = 4;  // below lie UID, lock and one-time bits

struct RestoreArguments {
    TagAccess access;  // the UID alone
    KeyRing keys;
    SecretText image;
    std::string file;
    bool trailers = false;
};

class Restore {
  public:
    Restore(Session& session, RestoreArguments& arguments, const TagUID& tag, const TagLayout& layout)
        : mSession(session), mArguments(arguments), mTag(tag), mLayout(layout) {}

    int run() {
        Progress progress(mSession, "Writing sector", mLayout.sectors);
        for (int sector = 0; sector < mLayout.sectors; ++sector) {
            if (!progress.begins(sector)) return kCancelled;
            const int status =
                mLayout.hasTrailers ? writeSector(sector) : writeData(kFirstUserPage, mLayout.blocks, {});
            if (status != kOk) return status;
        }
        return kOk;
    }
    const std::vector<OpResultCode>& records() const { return mRecords; }

  private:
    std::uint8_t* at(int block) {
        return reinterpret_cast<std::uint8_t*>(mArguments.image.text.data()) + block * mLayout.blockSize;
    }
    void enter(int block, int status) { mRecords.push_back({static_cast<short>(block), status}); }

    int writeSector(int number) {
        OpenSector sector;
        if (const int status = openSector(mSession, mTag, number, mArguments.keys, sector); status != kOk)
            return status;
        const int first = mLayout.firstBlock(number), trailer = mLayout.trailerOf(number);
        // Block 0 of the tag is the maker's.
        for (int block = std::max(first, 1); block < trailer;) {
            AuthKeyMode mode = AuthKeyA;
            const Key* key = writerOf(sector, number, block, mode);
            int end = block + 1;
            for (AuthKeyMode next = AuthKeyA; end < trailer && writerOf(sector, number, end, next) == key;)
                ++end;
            if (const int status = writeData(block, end, {key, mode}); status != kOk) return status;
            block = end;
        }
        return mArguments.trailers ? writeTrailer(number, sector) : kOk;
    }

    /// Null where no key that is there may write the block.
    const Key* writerOf(const OpenSector& sector, int number, int block, AuthKeyMode& mode) const {
        if (!sector.isOpen()) return nullptr;
        const auto group = static_cast<std::size_t>(mLayout.groupOf(number, block));
        return sector.keyFor(sector.trailer().inEffect(dataRule(sector.conditions[group]).write), mode);
    }

    struct Opener {
        const Key* key = nullptr;
        AuthKeyMode mode = AuthKeyA;
    };

    int writeData(int first, int end, Opener opener) {
        if (mLayout.hasTrailers && !opener.key) {
            for (int block = first; block < end; ++block)
                enter(block, kBlockNotWritten);
            return kOk;
        }
        Records records(mSession.adaptor());
        const int status = mSession.adaptor().setBlockData(
            0, TagAppNone, mTag, 0, opener.mode, opener.key ? opener.key->data() : nullptr, static_cast<short>(first),
            static_cast<short>(end - first), at(first), (end - first) * mLayout.blockSize, AuthKeyA, nullptr, nullptr,
            records.count(), records.list());
        mRecords.insert(mRecords.end(), records.all().begin(), records.all().end());
        return status == kPartial ? kOk : status;
    }

    /// Keys first, for the conditions are written with the keys that the sector then has.
    int writeTrailer(int number, const OpenSector& sector) {
        const int block = mLayout.trailerOf(number);
        const std::uint8_t* wanted = at(block);
        const Key keyA{std::span<const std::uint8_t, Key::kSize>(wanted, Key::kSize)};
        const Key keyB{std::span<const std::uint8_t, Key::kSize>(wanted + kKeyB, Key::kSize)};
        const DataAccControl conditions = conditionsOf(wanted);
        AuthKeyMode mode = AuthKeyA;
        const Key* key =
            sector.isOpen() ? sector.keyFor(sector.trailer().inEffect(sector.trailer().writeAll()), mode) : nullptr;
        if (conditions == AccInvalid || keyA.isBlank() || keyB.isBlank() || !key) {
            enter(block, key ? kAccessRefused : kBlockNotWritten);
            return kOk;
        }
        Records keys(mSession.adaptor()), access(mSession.adaptor());
        int status =
            mSession.adaptor().setKey(0, TagAppNone, static_cast<short>(number), mTag, mode, key->data(), keyA.data(),
                                      keyB.data(), 1, AuthKeyA, nullptr, keys.count(), keys.list());
        if (status == kOk)
            status = mSession.adaptor().setTrailerBlockType(0, TagAppNone, static_cast<short>(number), mTag, mode,
                                                            keyA.data(), keyB.data(), conditions, AuthKeyA, nullptr, 1,
                                                            access.count(), access.list());
        if (status != kOk && status != kPartial) return status;
        enter(block, status == kOk ? kOk : kBlockNotWritten);
        return kOk;
    }

    /// Only the two sets that the library writes can come back, and only where a trailer has their byte 9.
    static DataAccControl conditionsOf(const std::uint8_t* trailer) {
        const auto is = [&](const std::array<DataAccControl, 4>& conditions) {
            const auto access = accessBytes(conditions);
            return std::equal(access.begin(), access.end(), trailer + kAccess) && trailer[kGeneralPurpose] == kPlain;
        };
        if (is({AccData000, AccData000, AccData000, AccTrailer001})) return AccTrailer001;
        if (is({AccData100, AccData100, AccData100, AccTrailer011})) return AccTrailer011;
        return AccInvalid;
    }

    Session& mSession;
    RestoreArguments& mArguments;
    const TagUID& mTag;
    const TagLayout mLayout;
    std::vector<OpResultCode> mRecords;
};

Outcome restoreTag(Session& session, RestoreArguments& arguments, const TagUID& tag) {
    const auto layout = TagLayout::of(tag.getTagType());
    if (!layout) return session.fail(kNotAllowedHere, typeText(tag));
    if (layout->bytes() != arguments.image.text.size())
        return session.output().error({Outcome::failed, "wrong size",
                                       "the image has " + std::to_string(arguments.image.text.size()) +
                                           " bytes, and this tag, " + typeText(tag) + ", has " +
                                           std::to_string(layout->bytes()),
                                       "Take an image of such a tag.", 0});
    Restore restore(session, arguments, tag, *layout);
    int status = restore.run();
    std::vector<int> written;
    std::vector<OpResultCode> failed;
    for (const OpResultCode& each : restore.records())
        if (each.status == kOk)
            written.push_back(each.number);
        else
            failed.push_back(each);
    session.output().put({{"uid", uidText(tag)}, {"file", arguments.file}, {"written", written}},
                         uidText(tag) + ": " + (written.empty() ? "nothing" : named("block", written)) + " written");
    if (status == kOk && !failed.empty()) status = kPartial;
    return status == kOk ? Outcome::done : failWithRecords(session, status, "block", failed);
}

}  // namespace

Work setUpRestore(Options& options) {
    const auto arguments = std::make_shared<RestoreArguments>();
    options
        .text(
            "FILE",
            [arguments](const std::string& name) {
                arguments->image.readFile(name, kLargestImage);
                arguments->file = name;
            },
            "The image file, block 0 upwards")
        .required();
    arguments->keys.addOptions(options);
    options.flag("--trailers", arguments->trailers, "Write trailers too: keys and conditions of the image");
    addUidOption(options, arguments->access);
    options.footer("--key, --key-b and --keys are the keys that the tag has now. Block 0, and pages 0 to 3 of an\n"
                   "Ultralight, are never written. Of trailers only those of factory and formatted sectors can be\n"
                   "written, and none with a key of zeros, as images hold that were read without the keys.\n\n"
                   "Example: qvltag restore tag.mfd --keys known.keys");
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return restoreTag(session, *arguments, tag); });
    };
}
