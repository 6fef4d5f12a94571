// "write": blocks of a tag or of an application.

#include "Command.h"
#include "DataOptions.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <string>

namespace {

struct WriteArguments {
    TagAccess access;
    short block = 0;
    std::optional<short> count;
    DataArguments data;
};

Outcome writeBlocks(Session& session, WriteArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    auto& bytes = arguments.data.bytes;
    const std::size_t size = tagInfoByType(tag.getTagType()).blockSize;
    const std::size_t needed = size == 0 ? 0 : (bytes.size() + size - 1) / size;
    const short count = arguments.count.value_or(static_cast<short>(needed));
    Records records(session.adaptor());
    const int status = session.adaptor().setBlockData(0, access.appType(), tag, access.appId(), access.keyMode,
                                                      access.key.data(), arguments.block, count, bytes.data(),
                                                      static_cast<int>(bytes.size()), access.madKeyMode,
                                                      access.madKeyBytes(), nullptr, records.count(), records.list());
    if (status != kOk) return failWithRecords(session, status, "block", records.all());
    std::vector<int> blocks;
    for (const OpResultCode& each : records.all())
        blocks.push_back(each.number);
    session.output().put({{"written", blocks}}, named("block", blocks) + " written");
    return Outcome::done;
}

}  // namespace

Work setUpWrite(Options& options) {
    const auto arguments = std::make_shared<WriteArguments>();
    options.value("BLOCK", arguments->block, "The first block, counted from 0")
        .required()
        .type("")
        .range(0, kLastBlock);
    addDataOptions(options, arguments->data);
    options
        .text(
            "--count", [arguments](const std::string& text) { arguments->count = blockCountFromText(text); },
            "How many data blocks, or \"all\"; as many as the data\nneeds by default")
        .type("N");
    addKeyOptions(options, arguments->access);
    addAppOption(options, arguments->access);
    addUidOption(options, arguments->access);
    options.footer("Trailers are skipped and do not count. What the data leaves of the blocks becomes zero.\n\n"
                   "Example: qvltag write 4 --text \"Door 17\" --key env:DOOR_KEY --key-type b");
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return writeBlocks(session, *arguments, tag); });
    };
}
