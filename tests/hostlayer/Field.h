#pragma once

#include "ReaderUnderTest.h"
#include "qvlmf500/qvl.h"
#include "qvlmf500/qvl_virtual.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// A virtual reader of the model under test with these tags; more can be set.
inline qvl::VirtualReader::Options readerWith(std::vector<std::string> tags = {}) {
    using Model = qvl::VirtualReader::Model;
    return {
        .model = isMf500UnderTest() ? Model::mfRc500 : Model::pn531, .tags = std::move(tags), .program = QVLREADERSIM};
}

/// The operation ends with an Error of this reason, whose text contains `text`.
inline void expectError(qvl::Reason reason, const std::string& text, const std::function<void()>& operation) {
    try {
        operation();
        ADD_FAILURE() << "no error with \"" << text << "\"";
    } catch (const qvl::Error& error) {
        EXPECT_STREQ(name(error.reason()), name(reason)) << error.what();
        EXPECT_THAT(error.what(), ::testing::HasSubstr(text));
    }
}

/// Other tests of this machine use their readers meanwhile.
inline const std::chrono::seconds kPatience{60};

/// A virtual reader with tags and the reader opened on it.
class Field {
  public:
    explicit Field(std::vector<std::string> tags) : simulator(readerWith(std::move(tags))), reader(kPatience) {}

    qvl::VirtualReader simulator;
    qvl::Reader reader;
};
