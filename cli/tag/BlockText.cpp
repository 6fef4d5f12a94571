#include "BlockText.h"

#include "PrivateFile.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "Text.h"

#include <vector>

namespace {

void showBlocks(Session& session, std::span<const std::uint8_t> data, std::span<const OpResultCode> records) {
    const std::size_t size = records.empty() ? 0 : data.size() / records.size();
    std::vector<std::vector<std::string>> rows;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i].status != kOk) continue;
        const auto block = data.subspan(i * size, size);
        if (session.output().isJson())
            session.output().put({{"block", records[i].number}, {"data", hexDigits(block)}}, "");
        rows.push_back({std::to_string(records[i].number), hexDigits(block), printable(block)});
    }
    if (!session.output().isJson() && !rows.empty()) session.output().put({}, alignedTable(rows));
}

Outcome keep(Session& session, std::span<const std::uint8_t> data, const std::string& file) {
    const std::string complaint = writePrivateFile(file, data);
    if (!complaint.empty()) return session.output().error({Outcome::failed, "file", complaint, "", 0});
    session.output().put({{"file", file}, {"bytes", data.size()}}, file + ": " + counted(data.size(), "byte"));
    return Outcome::done;
}

}  // namespace

Outcome tellData(Session& session, int status, std::span<const std::uint8_t> data,
                 std::span<const OpResultCode> records, const std::string& file) {
    if (status == kOk && !file.empty()) return keep(session, data, file);
    if (file.empty()) showBlocks(session, data, records);
    return status == kOk ? Outcome::done : failWithRecords(session, status, "block", records);
}
