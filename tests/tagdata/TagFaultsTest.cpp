// What goes wrong between the library and the reader, at each command of each operation on a tag's memory; and what a
// host may hand in by mistake.

#include "SweptOperations.h"

#include <cstdlib>
#include <future>

namespace {

std::vector<Operation> allOperations() {
    std::vector<Operation> all = writingOperations();
    for (Operation& op : readingOperations())
        all.push_back(std::move(op));
    return all;
}

class TagFaults : public ::testing::TestWithParam<Operation> {
  protected:
    TagFaults() : op(GetParam()), place(op.before.size()) { place.adaptor->setTagPromptFlag(false); }

    /// The operation without a fault. @return its number of commands.
    std::uint32_t takeMeasure() {
        place.setImage(op.before);
        const std::uint32_t before = commands();
        clean = op.run(place);
        whole = place.image();
        wanted = ownedSectors(whole) - ownedSectors(op.before);
        return commands() - before;
    }
    std::uint32_t commands() {
        std::uint32_t all = 0;
        for (int code = 0; code < 256; ++code)
            all += place.reader->commandCount(static_cast<std::uint8_t>(code));
        return all;
    }

    /// Takes the tags away that came in place of the known one. @return whether one of them was written to.
    bool othersWritten() {
        bool any = false;
        for (const VirtualField::Entry& entry : place.reader->field().list())
            if (entry.tag != place.virtualTag) {
                any = any || entry.tag->memory()->writeCount() > 0;
                place.reader->field().remove(entry.name);
            }
        place.reader->field().setPresent(place.name, true);
        return any;
    }

    std::string wrongData(const Outcome& told) const {
        if (op.writes()) return {};
        if (told.status == kOk) return told.data == clean.data ? "" : "wrong data";
        for (std::size_t i = 0; told.status == kPartial && i < told.records.size(); ++i) {
            const Bytes got(told.data.begin() + static_cast<std::ptrdiff_t>(i * 16),
                            told.data.begin() + static_cast<std::ptrdiff_t>(i * 16 + 16));
            const Bytes expected = told.records[i].status == kOk ? blockOf(op.before, op.blocks[i]) : Bytes(16, 0);
            if (got != expected) return at("wrong data of record", static_cast<int>(i));
        }
        return {};
    }

    std::string survives(const std::string& rule) {
        place.setImage(op.before);
        EXPECT_EQ(place.reader->addFaults(rule), "");
        const std::uint64_t start = place.clock->nowMs();
        const Outcome told = op.run(place);
        const std::uint64_t took = place.clock->nowMs() - start;
        place.reader->clearFaults();
        place.reader->comeBack();
        const Bytes after = place.image();
        const bool others = othersWritten();
        // Formatting takes the tag that it finds, but never two of them.
        const bool foundOther = others && op.findsTag && after == op.before;
        std::string found = foundOther ? "" : others ? "written to another tag" : wrongData(told);
        if (found.empty() && !foundOther) found = wrong({op, op.before, whole, 0, wanted}, told, after);
        if (found.empty() && took > 60000) found = "took too long";
        const auto works = [this] { return place.adaptor->initReader() ? place.poll(true) : "not initialised"; };
        if (found.empty() && std::async(std::launch::async, works).get().substr(0, 8) != "deadbeef")
            found = "the reader does not answer, status " + std::to_string(told.status);
        return found;
    }

    void sweep(bool sparse);

    const Operation& op;
    TagWorkplace place;
    Outcome clean;
    Bytes whole;
    int wanted = 0;
};

void TagFaults::sweep(bool sparse) {
    const char* const effects[] = {
        "no answer",   "no ack",        "no reply",       "nack",         "wrong ack",     "error",      "late ack",
        "late reply",  "reply twice",   "wrong checksum", "wrong code",   "status 01",     "status 14",  "cut 0",
        "cut 8",       "short 0",       "xor 6 01",       "pad 200",      "extended 1025", "endless",    "overdue 1",
        "out of step", "vanish before", "vanish between", "vanish after", "tag gone",      "tag blinks", "tag swapped",
    };
    const std::uint32_t all = takeMeasure();
    ASSERT_TRUE(clean.status == kOk || clean.status == kPartial) << clean.status;
    const std::uint32_t step = std::getenv("QVL_FULL_SWEEP") != nullptr ? 1 : sparse ? 23 : 11;
    std::uint32_t turn = 0;
    int failures = 0;
    for (const char* effect : effects)
        for (std::uint32_t command = 1 + turn++ % step; command <= all; command += step)
            for (const char* when : {"any ", "any from "}) {
                // A tag that comes anew with every command keeps a halt busy up to its limit, which other tests
                // measure.
                if (when[4] == 'f' && std::string(effect).find("tag ") == 0) continue;
                const std::string rule = when + std::to_string(command) + " " + effect;
                const std::string found = survives(rule);
                EXPECT_EQ(found, "") << rule << " of " << all;
                ASSERT_LT(failures += found.empty() ? 0 : 1, 5);
            }
}

TEST_P(TagFaults, LeaveTheTruthOnAKeyedLink) { sweep(false); }

TEST_P(TagFaults, LeaveTheTruthOnALinkInTheClear) {
    place.reader->options().knowsLinkKey = false;
    place.adaptor->stopReader();
    place.reader->vanish();
    place.reader->comeBack();
    ASSERT_TRUE(place.adaptor->initReader());
    ASSERT_FALSE(place.reader->isLinkKeyed());
    sweep(true);
}

TEST_P(TagFaults, AUidOfAnyLengthReachesNoOtherTag) {
    takeMeasure();
    if (op.findsTag) return;
    Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
    uid.resize(300, 0x11);
    const std::uint32_t type = place.tag.getTagType();
    for (const std::uint32_t length : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 255u, 256u, 300u}) {
        place.tag = TagUID(uid.data(), length, type);
        place.setImage(op.before);
        const std::uint32_t asked = place.reader->commandCount(0x40);
        const Outcome told = op.run(place);
        EXPECT_EQ(place.image(), length == 4 ? whole : op.before) << length;
        const bool never = length > 10;
        EXPECT_TRUE(told.status == (length == 0   ? kTagWithoutUid
                                    : length == 4 ? clean.status
                                                  : kNoTag) ||
                    (told.status == kCancelled && !never && length != 0 && length != 4))
            << length << ": " << told.status;
        EXPECT_EQ(place.reader->commandCount(0x40) != asked, length == 4) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Every, TagFaults, ::testing::ValuesIn(allOperations()), nameOf);

}  // namespace
