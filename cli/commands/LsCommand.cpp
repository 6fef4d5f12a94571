// "ls": the tags in the field.

#include "Command.h"
#include "FromLibrary.h"
#include "ServiceStatus.h"
#include "StatusText.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace {

struct LsArguments {
    TagAccess access;
    bool apps = false;
};

/// Adds the applications of a tag, or why there are none. They can fail for one tag and not for the next.
void tellApps(Session& session, const TagAccess& access, const TagUID& tag, Json& object,
              std::vector<std::string>& row) {
    FromLibrary<short> ids(session.adaptor());
    short count = 0;
    const int status =
        session.adaptor().getAllAppId(0, TagAppMad1, tag, count, ids.out(), access.madKeyMode, access.madKeyBytes());
    if (status != kOk) {
        const Problem problem = problemOf(status);
        object.add("error", problem.name);
        object.add("status", status);
        return row.push_back(problem.name);
    }
    Json apps = Json::array();
    std::string text;
    for (const short each : std::span(ids.get(), static_cast<std::size_t>(count))) {
        const std::string id = appText(static_cast<std::uint16_t>(each));
        apps.push_back(id);
        text += (text.empty() ? "" : " ") + id;
    }
    object.add("apps", apps);
    row.push_back(text.empty() ? "no application" : text);
}

Outcome listTags(Session& session, const LsArguments& arguments) {
    const TagAccess& access = arguments.access;
    FromLibrary<TagUID> tags(session.adaptor());
    short count = 0;
    const int status = session.adaptor().getAllTagId(0, access.appType(), access.appId(), access.madKeyMode,
                                                     access.madKeyBytes(), count, tags.out());
    if (status != kOk) return session.fail(status);
    if (count == 0) return session.fail(kNoDirectory);

    std::vector<std::vector<std::string>> rows;
    for (const TagUID& tag : std::span(tags.get(), static_cast<std::size_t>(count))) {
        Json object{{"uid", uidText(tag)}, {"type", typeText(tag)}};
        rows.push_back({uidText(tag), typeText(tag)});
        if (arguments.apps) tellApps(session, access, tag, object, rows.back());
        if (session.output().isJson()) session.output().put(object, "");
    }
    if (!session.output().isJson()) session.output().put({}, alignedTable(rows));
    return Outcome::done;
}

}  // namespace

Work setUpLs(Options& options) {
    const auto arguments = std::make_shared<LsArguments>();
    options.flag("--apps", arguments->apps, "Show the applications of each tag too");
    addAppOption(options, arguments->access).description("Only tags with this application");
    options.footer("Example: qvltag ls --apps");
    return [arguments](Session& session) { return listTags(session, *arguments); };
}
