// "ls": the tags in the field.

#include "Command.h"
#include "ErrorText.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <string>
#include <vector>

namespace {

struct LsArguments {
    TagAccess access;
    bool apps = false;
};

/// Those with the application that is wanted, or all. Waits for the first.
std::vector<qvl::Tag> wantedTags(Session& session, const TagAccess& access) {
    static_cast<void>(findTag(session, access));
    std::vector<qvl::Tag> tags = session.reader().tags(session.limit());
    if (!access.app) return tags;
    std::erase_if(tags, [&](const qvl::Tag& tag) {
        try {
            const auto ids = tag.applications(access.directory, session.limit());
            return std::ranges::find(ids, *access.app) == ids.end();
        } catch (const qvl::Error&) {
            return true;
        }
    });
    return tags;
}

/// Adds the applications of a tag, or why there are none. @return false if they could not be read.
bool tellApps(Session& session, const TagAccess& access, const qvl::Tag& tag, Json& object,
              std::vector<std::string>& row) {
    try {
        Json apps = Json::array();
        std::string text;
        for (const std::uint16_t each : tag.applications(access.directory, session.limit())) {
            apps.push_back(appText(each));
            if (!text.empty()) text += ' ';
            text += appText(each);
        }
        object.add("apps", apps);
        row.push_back(text.empty() ? "no application" : text);
        return true;
    } catch (const qvl::Error& error) {
        const Problem problem = problemOf(error);
        object.add("error", problem.name);
        object.add("reason", problem.reason);
        object.add("status", problem.status);
        row.push_back(problem.name + ": " + problem.meaning);
        return false;
    }
}

/// Fails if the applications of a tag are asked for and cannot be read; the other tags are listed all the same.
Outcome listTags(Session& session, const LsArguments& arguments) {
    std::vector<std::vector<std::string>> rows;
    Outcome outcome = Outcome::done;
    for (const qvl::Tag& tag : wantedTags(session, arguments.access)) {
        const std::string uid = tag.uid().text();
        Json object{{"uid", uid}, {"type", tag.typeName()}};
        rows.push_back({uid, tag.typeName()});
        if (const auto geometry = tag.geometry()) {
            object.add("bytes", geometry->bytes());
            object.add("sectors", geometry->sectors);
            object.add("blocks", geometry->blocks);
            rows.back().push_back(std::to_string(geometry->bytes()) + " bytes, " +
                                  counted(static_cast<std::size_t>(geometry->blocks), "block") + " in " +
                                  counted(static_cast<std::size_t>(geometry->sectors), "sector"));
        } else {
            rows.back().emplace_back("");
        }
        if (arguments.apps && !tellApps(session, arguments.access, tag, object, rows.back())) outcome = Outcome::failed;
        if (session.output().isJson()) session.output().put(object, "");
    }
    if (!session.output().isJson()) session.output().put({}, alignedTable(rows));
    return outcome;
}

}  // namespace

Work setUpLs(Options& options) {
    const auto arguments = std::make_shared<LsArguments>();
    options.flag("--apps", arguments->apps, "Show the applications of each tag too");
    addAppOption(options, arguments->access).description("Only tags with this application");
    options.footer("Example: qvltag ls --apps");
    return [arguments](Session& session) { return listTags(session, *arguments); };
}
