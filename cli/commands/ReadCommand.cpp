// "read": blocks of a tag or of an application.

#include "Command.h"
#include "DataOptions.h"
#include "ResultsText.h"
#include "TagAccess.h"

#include <memory>
#include <string>

namespace {

struct ReadArguments {
    TagAccess access;
    int block = 0;
    int count = 1;
    std::string file;
};

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
        return onMemory(session, arguments->access, [&](const qvl::Memory& memory) {
            return tellBlocks(session,
                              memory.read(arguments->block, arguments->count, arguments->access.login, session.limit()),
                              arguments->file);
        });
    };
}
