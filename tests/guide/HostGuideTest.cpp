// What the guide for hosts shows, as it stands there: one host from its first example to its last.

#include "ReaderUnderTest.h"
#include "qvlmf500/qvl.h"
#include "qvlmf500/qvl_virtual.h"

#include <gtest/gtest.h>

#include <iostream>

namespace {

TEST(TheGuide, ShowsWhatWorks) {
    using Model = qvl::VirtualReader::Model;
    qvl::VirtualReader simulator({.model = isMf500UnderTest() ? Model::mfRc500 : Model::pn531,
                                  .tags = {"new:1k:11223344"},
                                  .program = QVLREADERSIM});
    const qvl::Key master = qvl::Key::parse("030303030303");
    const qvl::Key keyA = qvl::Key::parse("010101010101"), keyB = qvl::Key::parse("020202020202");
#define check(condition) ASSERT_TRUE(condition)
#include "host_examples.inc"
#undef check
}

}  // namespace
