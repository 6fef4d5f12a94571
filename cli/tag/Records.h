#pragma once

#include "FromLibrary.h"
#include "Session.h"

#include <span>
#include <string>

/// The records that an operation gives on its blocks or sectors.
class Records {
  public:
    explicit Records(ReaderImpl& adaptor) : mList(adaptor) {}

    OpResultCode*& list() { return mList.out(); }
    int& count() { return mCount; }
    std::span<const OpResultCode> all() const {
        return {mList.get(), mList.get() ? static_cast<std::size_t>(mCount) : 0};
    }

  private:
    FromLibrary<OpResultCode> mList;
    int mCount = 0;
};

/// Complains about a status that is not success, after a table of the records that were made, `unit` being what they
/// number: "block", "sector". Partial success (3132) in which all failed for one reason is told as that reason.
Outcome failWithRecords(Session& session, int status, const char* unit, std::span<const OpResultCode> records,
                        const std::string& where = {});
