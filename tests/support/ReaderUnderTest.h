#pragma once

#include <cstdlib>
#include <string>

/// The model of reader that this run of the tests is about, as qvlreadersim names it.
inline std::string readerUnderTest() {
    const char* model = std::getenv("QVL_TEST_READER");
    return model != nullptr ? model : "tama";
}
inline bool isMf500UnderTest() { return readerUnderTest() == "mf500"; }
