#pragma once

namespace platform {

/// How one transfer ended.
enum class IoResult {
    done,      ///< The transfer took place; the count says how much.
    timedOut,  ///< The limit went by first; the count holds what was moved until then.
    failed,    ///< The other end is gone, or the system refused. Nothing more will come.
};

}  // namespace platform
