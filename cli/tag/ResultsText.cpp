#include "ResultsText.h"

#include "ErrorText.h"
#include "PrivateFile.h"
#include "Text.h"

#include <algorithm>
#include <vector>

namespace {

void tellTable(Output& output, const char* unit, std::span<const qvl::Result> results) {
    std::vector<std::vector<std::string>> rows{{unit, "result"}};
    for (const qvl::Result& each : results) {
        const Problem problem = each.ok() ? Problem{} : problemOf(each.status);
        if (output.isJson()) {
            Json object{{unit, each.number}, {"status", each.status}};
            if (!each.ok()) object.add("error", problem.name);
            if (!each.ok()) object.add("reason", problem.reason);
            output.put(object, "");
        }
        rows.push_back({std::to_string(each.number),
                        each.ok() ? "done" : problem.name + " (" + std::to_string(each.status) + ")"});
    }
    if (!output.isJson() && !results.empty()) output.put({}, alignedTable(rows));
}

void showBlocks(Session& session, const qvl::Blocks& blocks) {
    std::vector<std::vector<std::string>> rows;
    for (std::size_t i = 0; i < blocks.list().size(); ++i) {
        if (!blocks.list()[i].ok()) continue;
        const qvl::ByteView bytes = blocks.at(i);
        const int number = blocks.list()[i].number;
        if (session.output().isJson()) session.output().put({{"block", number}, {"data", hexDigits(bytes)}}, "");
        rows.push_back({std::to_string(number), hexDigits(bytes), printable(bytes)});
    }
    if (!session.output().isJson() && !rows.empty()) session.output().put({}, alignedTable(rows));
}

Outcome keep(Session& session, qvl::ByteView data, const std::string& file) {
    const std::string complaint = writePrivateFile(file, data);
    if (!complaint.empty()) return session.output().error({Outcome::failed, "file", complaint, "", 0, ""});
    session.output().put({{"file", file}, {"bytes", data.size()}}, file + ": " + counted(data.size(), "byte"));
    return Outcome::done;
}

}  // namespace

Outcome tellResults(Session& session, const qvl::Results& results, const char* unit, const std::string& where) {
    if (results.complete()) return Outcome::done;
    tellTable(session.output(), unit, results.list());
    const int status = results.list().front().status;
    const bool isForOneReason =
        std::ranges::all_of(results.list(), [&](const auto& each) { return each.status == status; });
    return session.output().error(problemOf(isForOneReason ? status : int{kPartial}), where);
}

Outcome tellBlocks(Session& session, const qvl::Blocks& blocks, const std::string& file) {
    if (blocks.complete() && !file.empty()) return keep(session, blocks.bytes(), file);
    if (file.empty()) showBlocks(session, blocks);
    return tellResults(session, blocks, "block");
}

Outcome tellSectors(Session& session, const qvl::Results& results, std::string_view what) {
    if (!results.complete()) return tellResults(session, results, "sector");
    std::vector<int> sectors;
    for (const qvl::Result& each : results.list())
        sectors.push_back(each.number);
    session.output().put({{"sectors", sectors}, {"set", std::string(what)}},
                         named("sector", sectors) + ": " + std::string(what));
    return Outcome::done;
}
