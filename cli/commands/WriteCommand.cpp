// "write": blocks of a tag or of an application.

#include "Command.h"
#include "DataOptions.h"
#include "ResultsText.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

struct WriteArguments {
    TagAccess access;
    int block = 0;
    std::optional<int> count;
    DataArguments data;
};

Outcome writeBlocks(Session& session, const WriteArguments& arguments, const qvl::Memory& memory) {
    const auto& bytes = arguments.data.bytes;
    const qvl::Login& login = arguments.access.login;
    const qvl::Results results = arguments.count
                                     ? memory.write(arguments.block, *arguments.count, bytes, login, session.limit())
                                     : memory.write(arguments.block, bytes, login, session.limit());
    if (!results.complete()) return tellResults(session, results, "block");
    std::vector<int> blocks;
    for (const qvl::Result& each : results.list())
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
        return onMemory(session, arguments->access,
                        [&](const qvl::Memory& memory) { return writeBlocks(session, *arguments, memory); });
    };
}
