// Runs of data blocks: what the host asks for is checked here and done in tagops/.

#include "BlockRun.h"
#include "TagGeometry.h"
#include "TagOperation.h"
#include "TagSizes.h"

#include <algorithm>
#include <memory>

namespace {

int checkRun(TagAppType appType, const TagUID& tag, short appId, int startBlock) {
    if (appType != TagAppNone) return checkAppId(appType, appId);
    const int status = checkUserBlock(tag.getTagType(), startBlock);
    return status == kMemoryOk ? kOk : status;
}

// The status forms: one entry a block from the records of the record form.
void copyStatuses(int* statuses, int count, const OpResultCode* records) {
    if (statuses == nullptr) return;
    for (int i = 0; i < count; ++i)
        statuses[i] = records[i].status;
}

/// The host's data, and after them the pattern of its block up to the end of the run.
std::unique_ptr<std::uint8_t[]> filledUp(const std::uint8_t* data, int dataLength, const std::uint8_t* fillBlock,
                                         std::size_t size) {
    auto filled = std::make_unique<std::uint8_t[]>(size);
    for (std::size_t i = 0; i < size; ++i)
        filled[i] = fillBlock[i % kBlockSize];
    if (dataLength > 0) std::copy_n(data, dataLength, filled.get());
    return filled;
}

}  // namespace

int QvlMf500ReaderImpl::getBlockData(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t*& data,
                                     int& dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                     int& resultCount, OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkRun(appType, tag, appId, startBlock); status != kOk) return status;
    if (blockCount < 0) return kOutOfRange;
    return operateOn("getBlockData", tag, [&](SelectedTag& selected) {
        BlockRun run(selected);
        const RunRequest request{appType, appId, startBlock, blockCount, directoryKey(madKey, madKeyMode), false};
        if (const int status = run.resolve(request); status != kOk) return status;
        auto bytes = std::make_unique<std::uint8_t[]>(run.size());
        OpRecords records;
        const int status = run.read({key, keyMode}, bytes.get(), records);
        data = bytes.release();
        dataLength = static_cast<int>(run.size());
        records.release(resultCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::setBlockData(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t* data,
                                     int dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                     const std::uint8_t* fillBlock, int& resultCount, OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (dataLength < 0 || dataLength > blockCount * static_cast<int>(kBlockSize))
        return blockCount < 0 ? kOutOfRange : kDataTooLong;
    if (startBlock < 0 || blockCount < 0) return kOutOfRange;
    if (const int status = checkRun(appType, tag, appId, startBlock); status != kOk) return status;
    if (data == nullptr && dataLength > 0) return kReaderFailed;
    return operateOn("setBlockData", tag, [&](SelectedTag& selected) {
        BlockRun run(selected);
        const RunRequest request{appType, appId, startBlock, blockCount, directoryKey(madKey, madKeyMode), true};
        if (const int status = run.resolve(request); status != kOk) return status;
        if (static_cast<std::size_t>(dataLength) > run.size()) return int{kDataTooLong};
        std::span<const std::uint8_t> bytes(data, static_cast<std::size_t>(dataLength));
        std::unique_ptr<std::uint8_t[]> filled;
        if (fillBlock != nullptr) {
            filled = filledUp(data, dataLength, fillBlock, run.size());
            bytes = {filled.get(), run.size()};
        }
        OpRecords records;
        const int status = run.write({key, keyMode}, bytes, records);
        records.release(resultCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, int* statuses) {
    int count = 0;
    OpResultCode* records = nullptr;
    const int status = getBlockData(readerId, appType, tag, appId, keyMode, key, startBlock, blockCount, data,
                                    dataLength, madKeyMode, madKey, count, records);
    copyStatuses(statuses, count, records);
    freeMemory(records);
    return status;
}

int QvlMf500ReaderImpl::setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, int* statuses) {
    int count = 0;
    OpResultCode* records = nullptr;
    const int status = setBlockData(readerId, appType, tag, appId, keyMode, key, startBlock, blockCount, data,
                                    dataLength, madKeyMode, madKey, nullptr, count, records);
    copyStatuses(statuses, count, records);
    freeMemory(records);
    return status;
}

int QvlMf500ReaderImpl::getAppData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, std::uint8_t*& data, int& dataLength,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                                   OpResultCode*& results) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return getBlockData(readerId, appType, tag, appId, keyMode, key, 0, kToTheEnd, data, dataLength, madKeyMode, madKey,
                        resultCount, results);
}

int QvlMf500ReaderImpl::setAppData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, std::uint8_t* data, int dataLength,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey, const std::uint8_t* fillBlock,
                                   int& resultCount, OpResultCode*& results) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return setBlockData(readerId, appType, tag, appId, keyMode, key, 0, kToTheEnd, data, dataLength, madKeyMode, madKey,
                        fillBlock, resultCount, results);
}
