// "restore": an image file onto a tag.

#include "Command.h"
#include "ImageFile.h"
#include "KeyRingOptions.h"
#include "Progress.h"
#include "ResultsText.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kLargestImage = 4096;

struct RestoreArguments {
    TagAccess access;  // the UID alone
    qvl::KeyRing keys;
    SecretText image;
    std::string file;
    std::vector<int> missing;
    bool trailers = false;
};

Outcome restoreTag(Session& session, const RestoreArguments& arguments) {
    const qvl::Tag tag = findTag(session, arguments.access);
    const auto geometry = tag.geometry();
    const std::string& text = arguments.image.text;
    qvl::Results results;
    {
        Progress progress(session, "Writing sector", geometry ? geometry->sectors : 1);
        results = qvl::writeImage(tag, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
                                  arguments.keys, arguments.trailers, arguments.missing, [&](int sector, int) {
                                      progress.begins(sector);
                                      return session.limit();
                                  });
    }
    std::vector<int> written;
    std::vector<qvl::Result> failed;
    for (const qvl::Result& each : results.list())
        if (each.ok())
            written.push_back(each.number);
        else
            failed.push_back(each);
    const std::string uid = tag.uid().text();
    session.output().put(
        {{"uid", uid}, {"file", arguments.file}, {"written", written}, {"leftAlone", arguments.missing}},
        uid + ": " + (written.empty() ? "nothing" : named("block", written)) + " written" +
            (arguments.missing.empty() ? "" : ", " + named("block", arguments.missing) + " left alone"));
    return tellResults(session, qvl::Results(std::move(failed)), "block");
}

}  // namespace

Work setUpRestore(Options& options) {
    const auto arguments = std::make_shared<RestoreArguments>();
    options
        .text(
            "FILE",
            [arguments](const std::string& name) {
                arguments->image.readFile(name, kLargestImage);
                arguments->missing = ImageFile(name).missing();
                arguments->file = name;
            },
            "The image file, block 0 upwards")
        .required();
    addKeyRingOptions(options, arguments->keys);
    options.flag("--trailers", arguments->trailers, "Write trailers too: keys and conditions of the image");
    addUidOption(options, arguments->access);
    options.footer("--key, --key-b and --keys are the keys that the tag has now. Block 0, and pages 0 to 3 of an\n"
                   "Ultralight, are never written, and blocks that FILE.json names as missing are left alone.\n"
                   "Of trailers only those of factory and formatted sectors can be written, besides those that\n"
                   "are on the tag already, and none with a key of zeros.\n\n"
                   "Example: qvltag restore tag.mfd --keys known.keys");
    return [arguments](Session& session) { return restoreTag(session, *arguments); };
}
