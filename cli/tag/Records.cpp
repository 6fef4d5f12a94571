#include "Records.h"

#include "ServiceStatus.h"
#include "StatusText.h"
#include "Text.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

void tellRecords(Output& output, const char* unit, std::span<const OpResultCode> records) {
    std::vector<std::vector<std::string>> rows{{unit, "result"}};
    for (const OpResultCode& each : records) {
        const std::string name = each.status == kOk ? "" : problemOf(each.status).name;
        if (output.isJson()) {
            Json object{{unit, each.number}, {"status", each.status}};
            if (!name.empty()) object.add("error", name);
            output.put(object, "");
        }
        rows.push_back(
            {std::to_string(each.number), name.empty() ? "done" : name + " (" + std::to_string(each.status) + ")"});
    }
    if (!output.isJson() && !records.empty()) output.put({}, alignedTable(rows));
}

}  // namespace

Outcome failWithRecords(Session& session, int status, const char* unit, std::span<const OpResultCode> records,
                        const std::string& where) {
    tellRecords(session.output(), unit, records);
    const bool same = std::ranges::all_of(records, [&](const auto& each) { return each.status == records[0].status; });
    if (status != kPartial || records.empty() || !same) return session.fail(status, where);
    // All of them failed, and for one reason.
    Problem problem = problemOf(records[0].status);
    problem.status = status;
    return session.output().error(problem, where);
}
