#pragma once

#include "CancellationOff.h"
#include "LogService.h"

#include <exception>
#include <utility>

/// The boundary of the library: no exception leaves an exported operation, and nobody cancels a thread inside one.
/// Whatever goes wrong inside, in practice a failed allocation, becomes `failure` and a log line.
template <typename Result, typename Body>
Result guarded(const char* operation, Result failure, Body&& body) noexcept {
    const platform::CancellationOff uncancelled;
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& error) {
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::%s ended early: %s", operation, error.what());
        return failure;
    }
}
