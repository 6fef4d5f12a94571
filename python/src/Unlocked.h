#pragma once

#include "HostWait.h"

#include <pybind11/pybind11.h>

#include <atomic>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace native {

namespace py = pybind11;

/// What may only happen once the operation of this thread is over: a signal handler, which runs in the middle of one,
/// asked for it.
inline thread_local std::vector<std::function<void()>> afterOperation;
/// It closes the reader: the operation has to end.
inline thread_local bool closesReader = false;
/// The interpreter is about to go away: the thread that ends it.
inline std::atomic<std::thread::id> exiting{};
/// Whether Python has no time left for this thread.
inline bool mustEnd() {
    const std::thread::id last = exiting;
    return last != std::thread::id() && last != std::this_thread::get_id();
}

inline void doWhatWaits() {
    if (hostWait() != nullptr) return;
    closesReader = false;
    for (const auto& action : std::exchange(afterOperation, {}))
        action();
}

/// Runs `work` while other threads of the interpreter run. No destructor takes the interpreter's lock back: at the end
/// of the interpreter Python unwinds the threads that ask for it.
template <typename Work>
std::invoke_result_t<Work> unlocked(Work&& work) {
    using Result = std::invoke_result_t<Work>;
    constexpr bool kGivesNothing = std::is_void_v<Result>;
    std::optional<std::conditional_t<kGivesNothing, bool, Result>> result;
    std::exception_ptr thrown;
    PyThreadState* state = PyEval_SaveThread();
    try {
        if constexpr (kGivesNothing)
            work();
        else
            result.emplace(work());
    } catch (...) {
        thrown = std::current_exception();
    }
    doWhatWaits();
    PyEval_RestoreThread(state);
    if (thrown && mustEnd()) {
        PyErr_SetNone(PyExc_SystemExit);  // which ends a thread without a word
        throw py::error_already_set();
    }
    if (thrown) std::rethrow_exception(thrown);
    if constexpr (!kGivesNothing) return std::move(*result);
}

}  // namespace native
