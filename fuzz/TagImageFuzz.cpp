// Hostile tags: any bytes as the memory of a tag, under every operation that reads. The first bytes of an input choose
// the kind of tag, the operation and its arguments; the rest is the image, repeated where it is too short. Sectors that
// an access bit closes are half of all, so the second byte can put readable trailers on.

#include "Machine.h"
#include "MifareClassicTag.h"
#include "UltralightTag.h"

namespace {

constexpr std::size_t kHead = 10;
constexpr std::uint8_t kKey[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr std::uint8_t kUid[] = {0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};

/// Key A of every sector is the known one; the access bytes are the factory's, or what the image has there.
void openTrailers(Bytes& image, bool accessToo) {
    for (std::size_t block = 3; block < image.size() / 16; ++block) {
        if (block < 128 ? block % 4 != 3 : block % 16 != 15) continue;
        std::copy_n(kKey, 6, image.begin() + static_cast<std::ptrdiff_t>(block * 16));
        constexpr std::uint8_t kAccess[] = {0xFF, 0x07, 0x80};
        if (accessToo) std::copy_n(kAccess, 3, image.begin() + static_cast<std::ptrdiff_t>(block * 16 + 6));
    }
}

std::shared_ptr<VirtualTag> makeTag(const std::uint8_t* head, const std::uint8_t* bytes, std::size_t size,
                                    TagUID& tag) {
    constexpr std::size_t kSizes[] = {1024, 4096, UltralightTag::kImageBytes};
    constexpr std::uint32_t kTypes[] = {kTagStandard, kTag4K, kTagUltralight};
    const std::size_t kind = head[0] % 3;
    Bytes image(kSizes[kind]);
    for (std::size_t i = 0; i < image.size() && size > 0; ++i)
        image[i] = bytes[i % size];
    if (kind == 2) {
        auto page = std::make_shared<UltralightTag>(std::move(image));
        tag = TagUID(page->uid().data(), 7, head[1] & 4 ? kTypes[head[1] % 3] : kTypes[kind]);
        return page;
    }
    if (head[1] & 1) openTrailers(image, (head[1] & 2) != 0);
    if (head[1] & 2) image[3 * 16 + 9] = 0xC1;
    tag = TagUID(kUid, 4, kTypes[kind]);
    return std::make_shared<MifareClassicTag>(std::move(image), std::span(kUid).first(4));
}

struct Arguments {
    TagAppType kind;
    short appId, first, count;
    AuthKeyMode mode;
};

void use(ReaderImpl& adaptor, const TagUID& tag, std::size_t operation, const Arguments& a) {
    short count = 0, words[16], *ids = nullptr;
    int value = 0;
    DataAccControl code = AccInvalid, codes[4];
    TagUID* found = nullptr;
    std::uint8_t* bytes = nullptr;
    OpResultCode* results = nullptr;
    int length = 0, records = 0;
    const std::function<void()> operations[] = {
        [&] { adaptor.getAllAppId(0, a.kind, tag, count, ids, a.mode, kKey); },
        [&] { adaptor.getAppIdDir(0, a.kind, tag, words, a.mode, kKey); },
        [&] {
            adaptor.getBlockData(0, a.kind, tag, a.appId, a.mode, kKey, a.first, a.count, bytes, length, AuthKeyA, kKey,
                                 records, results);
        },
        [&] {
            adaptor.getAppData(0, a.kind, tag, a.appId, a.mode, kKey, bytes, length, AuthKeyA, kKey, records, results);
        },
        [&] { adaptor.getValue(0, a.kind, tag, a.appId, a.mode, kKey, a.first, value, AuthKeyA, kKey); },
        [&] { adaptor.getBlockAccessMode(0, a.kind, tag, a.appId, a.mode, kKey, a.first, code, AuthKeyA, kKey); },
        [&] { adaptor.getSectorAccessMode(0, a.kind, tag, a.appId, a.mode, kKey, a.first, codes, AuthKeyA, kKey); },
        [&] { adaptor.getTagId(0, a.kind, a.appId, found, AuthKeyA, kKey, true); },
    };
    operations[operation % std::size(operations)]();
    touch(ids, ids != nullptr ? static_cast<std::size_t>(count) * sizeof(short) : 0);
    touch(bytes, bytes != nullptr ? static_cast<std::size_t>(length) : 0);
    touch(results, results != nullptr ? static_cast<std::size_t>(records) * sizeof *results : 0);
    adaptor.freeMemory(ids);
    adaptor.freeMemory(found);
    adaptor.freeMemory(bytes);
    adaptor.freeMemory(results);
}

short word(const std::uint8_t* at) { return static_cast<short>(at[0] | at[1] << 8); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Machine machine;
    if (size < kHead) return 0;
    TagUID tag;
    const auto placed = makeTag(data, data + kHead, size - kHead, tag);
    const Bytes before(placed->memory()->bytes().begin(), placed->memory()->bytes().end());
    machine.reader->field().place(placed);
    const Arguments arguments{static_cast<TagAppType>(data[3] % 3), word(data + 4), word(data + 6), word(data + 8),
                              data[3] & 0x80 ? AuthKeyB : AuthKeyA};
    use(*machine.adaptor, tag, data[2], arguments);
    require(placed->memory()->writeCount() == 0 && std::ranges::equal(before, placed->memory()->bytes()));
    machine.reader->field().clear();
    return 0;
}
