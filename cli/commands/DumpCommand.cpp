// "dump": a tag into an image file, as far as its keys reach.

#include "Command.h"
#include "ErrorText.h"
#include "ImageFile.h"
#include "KeyRingOptions.h"
#include "Progress.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <string>
#include <utility>

namespace {

struct DumpArguments {
    TagAccess access;  // the UID alone
    qvl::KeyRing keys;
    std::string file;
    bool force = false;
};

void tell(Session& session, const DumpArguments& arguments, const qvl::Tag& tag, const qvl::TagImage& image) {
    const std::string uid = tag.uid().text();
    const std::string composed = image.geometry.hasTrailers
                                     ? counted(image.composed.size(), "trailer") + ", from keys and conditions"
                                     : counted(image.composed.size(), "block") + ", from the UID";
    const bool noneProven = image.unprovenB.size() == image.composed.size();
    const std::pair<std::string, std::string> rows[] = {
        {"Tag", uid + ", " + tag.typeName()},
        {"File", arguments.file + ", " + counted(static_cast<std::size_t>(image.geometry.blocks), "block")},
        {"Read", counted(image.read.size(), "block")},
        {"Composed", image.composed.empty() ? "" : composed},
        {"Key B not proven", image.unprovenB.empty() ? ""
                             : noneProven            ? "in any trailer"
                                                     : "in " + named("block", image.unprovenB)},
        {"Missing", image.missing.empty() ? "" : named("block", image.missing)},
    };
    session.output().put({{"uid", uid},
                          {"type", tag.typeName()},
                          {"file", arguments.file},
                          {"blocks", image.geometry.blocks},
                          {"read", image.read},
                          {"composed", image.composed},
                          {"keyBNotProven", image.unprovenB},
                          {"missing", image.missing}},
                         alignedRows(rows));
}

Outcome dumpTag(Session& session, const DumpArguments& arguments) {
    const qvl::Tag tag = findTag(session, arguments.access);
    qvl::TagImage image;
    {
        const auto geometry = tag.geometry();
        Progress progress(session, "Reading sector", geometry ? geometry->sectors : 1);
        image = qvl::TagImage::of(tag, arguments.keys, [&](int sector, int) {
            progress.begins(sector);
            return session.limit();
        });
    }
    const ImageFile file(arguments.file);
    if (!arguments.force && file.isBetterThan(image))
        return session.output().error({Outcome::failed, "not replaced",
                                       arguments.file + " is there and holds more of a tag than could be read now (" +
                                           named("block", image.missing) + " missing)",
                                       "Give the keys that open these blocks, another name, or --force.", 0, ""});
    if (const std::string complaint = file.write(image); !complaint.empty())
        return session.output().error({Outcome::failed, "file", complaint, "", 0, ""});
    tell(session, arguments, tag, image);
    if (image.missing.empty()) return Outcome::done;
    return session.output().error({Outcome::failed, "incomplete", "blocks are missing from the image",
                                   "Other keys may open them: --key, --key-b, --keys.", 0, ""});
}

}  // namespace

Work setUpDump(Options& options) {
    const auto arguments = std::make_shared<DumpArguments>();
    options.value("FILE", arguments->file, "The image file, block 0 upwards").required().type("");
    addKeyRingOptions(options, arguments->keys);
    options.flag("--force", arguments->force, "Replace an image that holds more of a tag");
    addUidOption(options, arguments->access);
    options.footer("The library reads no trailers: they are composed of the keys that have opened the sector\n"
                   "and of its conditions. A key B that can be read on the tag cannot be tried; then the one\n"
                   "given is taken, and named as not proven. Blocks that are missing are zero in the image;\n"
                   "FILE.json names them, and \"restore\" leaves them alone.\n"
                   "The image holds keys, and only its owner may read it.\n\n"
                   "Example: qvltag dump tag.mfd --keys known.keys");
    return [arguments](Session& session) { return dumpTag(session, *arguments); };
}
