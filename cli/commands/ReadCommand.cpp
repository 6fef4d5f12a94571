// "read": blocks of a tag or of an application.

#include "BlockText.h"
#include "Command.h"
#include "DataOptions.h"
#include "FromLibrary.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "TagAccess.h"

#include <memory>
#include <string>

namespace {

struct ReadArguments {
    TagAccess access;
    short block = 0;
    short count = 1;
    std::string file;
};

Outcome readBlocks(Session& session, const ReadArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    FromLibrary<std::uint8_t> data(session.adaptor());
    Records records(session.adaptor());
    int length = 0;
    const int status = session.adaptor().getBlockData(
        0, access.appType(), tag, access.appId(), access.keyMode, access.key.data(), arguments.block, arguments.count,
        data.out(), length, access.madKeyMode, access.madKeyBytes(), records.count(), records.list());
    return tellData(session, status, {data.get(), static_cast<std::size_t>(data.get() ? length : 0)}, records.all(),
                    arguments.file);
}

}  // namespace

Work setUpRead(Options& options) {
    const auto arguments = std::make_shared<ReadArguments>();
    options.value("BLOCK", arguments->block, "The first block, counted from 0")
        .required()
        .type("")
        .range(0, kLastBlock);
    options.text(
        "COUNT", [arguments](const std::string& text) { arguments->count = blockCountFromText(text); },
        "How many data blocks, or \"all\"; 1 by default");
    addKeyOptions(options, arguments->access);
    addAppOption(options, arguments->access);
    options.value("--file", arguments->file, "Write the bytes to this file, do not show them").type("FILE");
    addUidOption(options, arguments->access);
    options.footer("Trailers are no data: they are skipped and do not count.\n\n"
                   "Example: qvltag read 4 3 --key @door.key --key-type b");
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return readBlocks(session, *arguments, tag); });
    };
}
