// Every operation on a tag's memory, while the power fails in the middle of any write and while anything goes wrong
// between the library and the reader at any command. What the tag then holds is judged from outside.

#include "SweptOperations.h"
#include "TagPrompt.h"

#include <cstdlib>
#include <future>
#include <thread>

namespace {

const bool kFull = std::getenv("QVL_FULL_SWEEP") != nullptr;
constexpr std::uint64_t kWaitTimeMs = 30000;

/// The longest that an operation has held the reader, and in which fault; for scripts/hold-times.
struct Hold {
    std::uint64_t ms = 0;
    std::string rule;

    void note(std::uint64_t took, const std::string& in) {
        if (took > ms) ms = took, rule = in;
    }
    void print(const std::string& operation, const char* how) const {
        if (std::getenv("QVL_PRINT_HOLDS") == nullptr) return;
        std::printf("HOLD %s|%s|%s|%llu|%s\n", operation.c_str(), isMf500UnderTest() ? "mf500" : "tama", how,
                    static_cast<unsigned long long>(ms), rule.c_str());
    }
};

class Sweep : public ::testing::TestWithParam<Operation> {
  protected:
    Sweep() : op(GetParam()), place(op.before.size()) {
        place.adaptor->setTagPromptFlag(false);
        place.clock->duringWait([this] { place.reader->field().setPresent(place.name, true); });
    }

    std::uint32_t writes() const { return place.virtualTag->memory()->writeCount(); }
    /// The operation without a fault.
    void takeMeasure() {
        place.setImage(op.before);
        const std::uint32_t commandsBefore = place.heardInAll(), writesBefore = writes();
        clean = op.run(place);
        whole = place.image();
        allCommands = place.heardInAll() - commandsBefore;
        allWrites = writes() - writesBefore;
        ASSERT_TRUE(clean.status == kOk || clean.status == kPartial) << clean.status;
    }

    /// Asked on another thread, which would wait for ever for a lock that was left behind.
    std::string readerAnswers() {
        const auto works = [this] { return place.adaptor->initReader() ? place.poll(true) : "not initialised"; };
        return std::async(std::launch::async, works).get().starts_with("deadbeef") ? "" : "the reader does not answer";
    }

    /// Few failures say as much as all of them.
    bool isEnough(const std::string& found, const std::string& rule) {
        EXPECT_EQ(found, "") << rule << " of " << allWrites << " writes and " << allCommands << " commands";
        return !found.empty() && ++failures == 5;
    }

    enum class Tag { staysAway, returnsAtOnce, returnsWhileWaitedFor };
    std::string cutAt(const std::string& rule, std::uint32_t write, Tag tag) {
        place.setImage(op.before);
        place.adaptor->setTagPromptFlag(tag == Tag::returnsWhileWaitedFor);
        EXPECT_EQ(place.reader->addFaults(rule), "");
        const std::uint32_t writesBefore = writes();
        const Outcome told = op.run(place);
        place.reader->clearFaults();
        place.reader->field().setPresent(place.name, true);
        if (writes() - writesBefore < write) return "the write never came";
        const Bytes after = place.image();
        const bool tears = !rule.ends_with(" 0") && !rule.ends_with(" 16");
        std::string found = wrong({op, op.before, whole, tears}, told, after);
        if (found.empty() && tag != Tag::staysAway) found = wrongDefects(told, after);
        if (found.empty()) found = wrongAfterRepeats(after, tears);
        return found.empty() ? readerAnswers() : found;
    }

    /// A directory names exactly the sectors that formatting could not write.
    std::string wrongDefects(const Outcome& told, const Bytes& after) const {
        if (op.entries.count(1) == 0 || told.status == kDirectoryNotWritten) return {};
        for (const OpResultCode& record : told.records)
            if (record.number > 0 && entryOf(after, record.number) != (record.status == kOk ? 0 : 1))
                return at("defect or not: sector", record.number);
        return after[16] == directoryCrc(after) ? "" : "checksum of the defects";
    }

    std::string wrongAfterRepeats(const Bytes& after, bool tears) {
        if (op.goesOn && !op.claims) return {};
        const Outcome again = op.run(place);
        const Bytes second = place.image();
        const Cut cut{op, after, whole, tears};
        const std::string found = wrong(cut, again, second);
        if (!found.empty()) return "repeated: " + found;
        if (after == op.before && (again.status != clean.status || second != whole)) return "repeated: not as at first";
        const bool mayFinish = op.entries.count(kOwnApp) == 0 && again.status != kDirectoryNotWritten;
        for (const int sector : op.sectors)
            if (mayFinish && !isDone(cut, second, sector) && opens(blockOf(after, trailerOf(sector)), op.key, op.mode))
                return at("repeated: not finished: sector", sector);
        if (op.goesOn) return {};
        op.run(place);
        return place.image() == second ? "" : "repeated twice: changes go on";
    }

    std::string faultAt(const std::string& rule, bool withPrompt) {
        place.setImage(op.before);
        place.adaptor->setTagPromptFlag(withPrompt);
        EXPECT_EQ(place.reader->addFaults(rule), "");
        const std::uint64_t start = place.clock->nowMs();
        const Outcome told = op.run(place);
        std::string found = tooLong(rule, place.clock->nowMs() - start, withPrompt);
        while (tagPromptStands())  // it goes down on a thread of its own; the next operation must not wait under it
            std::this_thread::yield();
        place.reader->clearFaults();
        place.reader->comeBack();
        const Bytes after = place.image();
        if (othersWritten()) {
            // Formatting takes the tag that it finds, but never two of them.
            if (!op.findsTag || after != op.before) found = "written to another tag";
        } else if (!op.isTimedOnly) {
            found += wrongData(told) + wrong({op, op.before, whole, false}, told, after);
        }
        return found.empty() ? readerAnswers() : found;
    }

    /// Nothing holds the reader longer than the wait for a tag and four time-outs of the device. Pauses of the
    /// operation's own, such as resets of the field, come on top.
    std::string tooLong(const std::string& rule, std::uint64_t took, bool withPrompt) {
        constexpr std::uint64_t kPausesMs = 1500;
        holds[withPrompt].note(took, rule);
        const std::uint64_t timeOut = isMf500UnderTest() ? 6000 : 4000;
        const std::uint64_t longest = 4 * timeOut + (withPrompt ? kWaitTimeMs : 0) + kPausesMs;
        return took <= longest ? "" : at("held the reader too long: ms", static_cast<int>(took));
    }

    /// Takes the tags away that came in place of the known one. @return whether one of them was written to.
    bool othersWritten() {
        bool any = false;
        for (const VirtualField::Entry& entry : place.reader->field().list()) {
            if (entry.tag == place.virtualTag) continue;
            any = any || entry.tag->memory()->writeCount() > 0;
            place.reader->field().remove(entry.name);
        }
        place.reader->field().setPresent(place.name, true);
        return any;
    }

    std::string wrongData(const Outcome& told) const {
        if (!op.sectors.empty()) return {};
        const bool isSame = told.data == clean.data && told.numbers == clean.numbers;
        if (told.status == kOk) return isSame ? "" : "wrong data";
        for (std::size_t i = 0; told.status == kPartial && i < told.records.size(); ++i) {
            const Bytes expected = told.records[i].status == kOk ? blockOf(op.before, op.blocks[i]) : Bytes(16, 0);
            if (blockOf(told.data, static_cast<int>(i)) != expected) return "wrong data of a record";
        }
        return {};
    }

    /// An MF RC500 sends no check sum with its replies, and under a key their bytes may be anything.
    bool passesUnseen(const std::string& effect) const {
        const auto isOneOf = [&](std::initializer_list<const char*> kinds) {
            return std::ranges::any_of(kinds, [&](const char* kind) { return effect.starts_with(kind); });
        };
        if (!isMf500UnderTest()) return false;
        return isOneOf({"xor"}) || (place.reader->isLinkKeyed() && isOneOf({"short", "pad", "out of step"}));
    }

    void sweepCommands(std::uint32_t step) {
        const char* const effects[] = {
            "no answer",     "no ack",     "no reply",    "nack",           "wrong ack",     "error",
            "late ack",      "late reply", "reply twice", "wrong checksum", "wrong code",    "status 01",
            "status 14",     "cut 0",      "cut 8",       "short 0",        "xor 6 01",      "pad 200",
            "extended 1025", "endless",    "overdue 1",   "out of step",    "vanish before", "vanish between",
            "vanish after",  "tag gone",   "tag blinks",  "tag swapped",
        };
        ASSERT_NO_FATAL_FAILURE(takeMeasure());
        place.clock->duringWait({});
        std::uint32_t turn = 0;
        for (const std::string effect : effects) {
            if (!place.hasFault(effect) || passesUnseen(effect)) continue;
            ASSERT_NO_FATAL_FAILURE(sweepEffect(effect, 1 + turn++ % step, step));
        }
        holds[0].print(op.name, place.reader->isLinkKeyed() ? "keyed" : "clear");
        holds[1].print(op.name, place.reader->isLinkKeyed() ? "keyed, prompt" : "clear, prompt");
    }

    void sweepEffect(const std::string& effect, std::uint32_t first, std::uint32_t step) {
        for (std::uint32_t command = first; command <= allCommands; command += step)
            for (const std::string when : {"any ", "any from "}) {
                // A tag that comes anew with every command keeps a halt busy up to its limit: a test of its own.
                if (when == "any from " && effect.starts_with("tag ")) continue;
                const std::string rule = when + std::to_string(command) + " " + effect;
                for (const bool withPrompt : {false, true})
                    ASSERT_FALSE(isEnough(faultAt(rule, withPrompt), rule + (withPrompt ? " under a prompt" : "")));
            }
    }

    const OpenPrompt surface;
    const Operation& op;
    TagWorkplace place;
    Outcome clean;
    Bytes whole;
    std::uint32_t allCommands = 0, allWrites = 0;
    int failures = 0;
    Hold holds[2];  ///< Without and with a prompt.
};
class PowerCut : public Sweep {};
class TagFaults : public Sweep {};

TEST_P(PowerCut, LeavesADocumentedState) {
    ASSERT_NO_FATAL_FAILURE(takeMeasure());
    ASSERT_GT(allWrites, 0u);
    const bool isSlow = op.before.size() == 4096 && !kFull;
    for (const Tag tag : {Tag::staysAway, Tag::returnsAtOnce, Tag::returnsWhileWaitedFor})
        for (std::uint32_t write = 1; write <= allWrites; ++write)
            for (const int bytes : {0, 2, 8, 14, 16}) {
                if (tag == Tag::returnsWhileWaitedFor && bytes != 8 && bytes != 16) continue;
                if (isSlow && bytes % 8 != 0) continue;
                const char* effect = tag == Tag::returnsAtOnce ? " dips after " : " torn ";
                const std::string rule = at("write", static_cast<int>(write)) + effect + std::to_string(bytes);
                ASSERT_FALSE(isEnough(cutAt(rule, write, tag), rule + at(", tag", static_cast<int>(tag))));
            }
}

TEST_P(TagFaults, LeaveTheTruthOnAKeyedLink) { sweepCommands(kFull ? 1 : 11); }

TEST_P(TagFaults, LeaveTheTruthOnALinkInTheClear) {
    place.reader->options().knowsLinkKey = false;  // another reader on the same plug, which the start takes
    place.reader->vanish();
    place.reader->comeBack();
    ASSERT_TRUE(place.adaptor->initReader());
    ASSERT_FALSE(place.reader->isLinkKeyed());
    sweepCommands(kFull ? 1 : 23);
}

TEST_P(TagFaults, AUidOfAnotherLengthReachesNoTag) {
    if (op.findsTag || op.isTimedOnly) return;
    Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
    uid.resize(300, 0x11);
    for (const std::uint32_t length : {0u, 1u, 3u, 5u, 7u, 10u, 11u, 12u, 255u, 256u, 300u}) {
        place.tag = TagUID(uid.data(), length, place.tag.getTagType());
        place.setImage(op.before);
        const std::uint32_t asked = place.heard(Op::authenticate);
        const int status = op.run(place).status;
        EXPECT_TRUE(length == 0 ? status == kTagWithoutUid : status == kNoTag || (status == kCancelled && length <= 10))
            << length << ": " << status;
        EXPECT_EQ(place.image(), op.before) << length;
        EXPECT_EQ(place.heard(Op::authenticate), asked) << length;
    }
}

std::vector<Operation> allOperations() {
    std::vector<Operation> all = writingOperations();
    for (const auto& more : {readingOperations(), otherOperations()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}
const auto nameOf = [](const ::testing::TestParamInfo<Operation>& info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(Every, PowerCut, ::testing::ValuesIn(writingOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Every, TagFaults, ::testing::ValuesIn(allOperations()), nameOf);

}  // namespace
