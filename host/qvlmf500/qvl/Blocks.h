#pragma once

#include "Bytes.h"
#include "Error.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace qvl {

/// What became of one block or sector.
struct Result {
    int number;  ///< Of the block or sector; within an application from 0.
    int status;  ///< 3100, or why not.

    bool ok() const { return status == kOk; }
    Reason reason() const { return statusInfo(status).reason; }
};

/// What became of each block or sector of an operation that may do a part of its work.
class Results {
  public:
    Results() = default;
    explicit Results(std::vector<Result> list) : mList(std::move(list)) {}

    std::span<const Result> list() const { return mList; }
    bool complete() const { return std::ranges::all_of(mList, &Result::ok); }
    /// For those who want all or an exception. @throws Error of the first that failed.
    void orThrow(const char* unit = "block") const {
        const auto failed = std::ranges::find_if_not(mList, &Result::ok);
        if (failed == mList.end()) return;
        const StatusInfo info = statusInfo(failed->status);
        throw Error(info.reason, failed->status,
                    std::string(unit) + " " + std::to_string(failed->number) + ": " + info.meaning);
    }

  private:
    std::vector<Result> mList;
};

/// Blocks that were read: their bytes one after the other, zeros for those that could not be read.
class Blocks : public Results {
  public:
    Blocks() = default;
    Blocks(std::vector<Result> list, Bytes bytes) : Results(std::move(list)), mBytes(std::move(bytes)) {}

    /// All bytes. @throws Error if a block is missing.
    const Bytes& bytes() const {
        orThrow();
        return mBytes;
    }
    /// All bytes, with zeros where a block is missing.
    const Bytes& bytesWithGaps() const { return mBytes; }
    std::size_t blockSize() const { return list().empty() ? 0 : mBytes.size() / list().size(); }
    /// The bytes of the block at this place of the list. @throws Error if it is missing or there is no such place.
    ByteView at(std::size_t index) const {
        if (index >= list().size()) throw Error(Reason::badArgument, "there is no such block in the list");
        if (!list()[index].ok()) Results({list()[index]}).orThrow();
        return ByteView(mBytes).subspan(index * blockSize(), blockSize());
    }

  private:
    Bytes mBytes;
};

}  // namespace qvl
