// What the reader hears in each operation on a tag without faults, and where it refuses a command now and then. The
// files in transcripts/ hold it: a line an operation, with its status, its commands, and a digest of all their bytes.

#include "CommandDoor.h"
#include "HexBytes.h"
#include "SweptOperations.h"

#include <cstdlib>
#include <fstream>
#include <map>

namespace {

/// The commands of one operation. Those that agree on the link's key come by chance and are left out.
class Transcript {
  public:
    explicit Transcript(VirtualReader& reader) {
        reader.listen([this](VirtualReader::Bytes command) { take(command); });
    }
    std::string taken(int status) {
        char digest[32];
        std::snprintf(digest, sizeof digest, " #%016llx", static_cast<unsigned long long>(mDigest));
        mDigest = kBasis;
        return std::to_string(status) + std::exchange(mText, {}) + digest;
    }

  private:
    static constexpr std::uint64_t kBasis = 0xCBF29CE484222325;  // FNV-1a

    void take(VirtualReader::Bytes command) {
        const bool isKeyCommand =
            isMf500UnderTest() ? command[0] == 0x10 || command[0] == 0x09 : command[0] == 0x1C || command[0] == 0x1E;
        if (isKeyCommand) return;
        for (const std::uint8_t byte : command)
            mDigest = (mDigest ^ byte) * 0x100000001B3;
        const auto told = [command](std::size_t at) { return text(command.subspan(at, 1)); };
        mText += " " + told(0);
        if (!isMf500UnderTest() && command[0] == 0x40) mText += "." + told(2) + "." + told(3);
        if (isMf500UnderTest() && command[0] == 0x18) mText += "." + told(1) + "." + told(command.size() - 1);
        if (isMf500UnderTest() && (command[0] == 0x19 || command[0] == 0x1A)) mText += "." + told(1);
    }

    std::string mText;
    std::uint64_t mDigest = kBasis;
};

using Lines = std::map<std::string, std::string>;

/// Refusals that the tag survives and that no link notices.
std::string refusals() {
    if (isMf500UnderTest())
        return "18 2 status 4\n19 2 status 1\n1A 2 status 1\n1A 4 status 1\n1A 5 status 1\n1A 6 status 1";
    return "40 2 status 14\n40 5 status 01\n40 8 status 01\n40 9 status 01\n40 10 status 01";
}

void tellTagOperations(Lines& lines) {
    std::vector<Operation> all = writingOperations();
    const std::vector<Operation> reading = readingOperations();
    all.insert(all.end(), reading.begin(), reading.end());
    for (const Operation& op : all)
        for (const bool refused : {false, true}) {
            TagWorkplace place(op.before.size());
            place.setImage(op.before);
            place.adaptor->setTagPromptFlag(false);
            Transcript transcript(*place.reader);
            EXPECT_EQ(place.reader->addFaults(refused ? refusals() : ""), "");
            const int status = op.run(place).status;
            lines[op.name + (refused ? " refused" : "")] = transcript.taken(status);
            place.reader->listen({});
        }
}

void tellReaderOperations(Lines& lines) {
    Workplace place;
    Transcript transcript(*place.reader);
    ReaderImpl& adaptor = place.start();
    adaptor.setTagPromptFlag(false);
    const auto say = [&](const std::string& name, int status) { lines[name] = transcript.taken(status); };
    say("initReader", adaptor.initReader());
    say("initReader again", adaptor.initReader());
    say("pollTag empty", place.poll().empty());
    const std::string plain = place.placeClassic();
    say("pollTag", place.poll().empty());
    say("pollTag halted", place.poll().empty());
    say("pollTag forced", place.poll(true).empty());
    say("getTagId", place.findTag());
    say("getTagId halt", place.findTag(kPlain, 0, true));
    say("getTagId without directory", place.findTag(kApp));
    const Bytes uid{4, 1, 2, 3, 4, 5, 6};
    place.reader->field().place(std::make_shared<MifareClassicTag>(directoryTag({{3, kOwnApp}}), uid));
    say("getTagId directory", place.findTag(kApp));
    say("getTagId application", place.findTag(kApp, kId, true));
    say("getAllTagId", place.findAll() + place.foundCount);
    say("getAllTagId directory", place.findAll(kApp) + place.foundCount);
    say("haltAllTag", adaptor.haltAllTag(true));
    std::uint8_t text[64];
    std::uint16_t length = 0;
    say("getReaderId", place.askReaderId());
    say("getReaderFwVersion", adaptor.getReaderFwVersion(text, length));
    say("switchReaderLED", adaptor.switchReaderLED(2, 1, 5));
    say("switchReaderLED 3", adaptor.switchReaderLED(3, 0, 5));
    TagUID empty(uid.data(), 7, kTagStandard), away(uid.data(), 3, kTagStandard);
    short words[16];
    say("away", adaptor.getAppIdDir(0, TagAppMad1, away, words, AuthKeyA, nullptr));
    say("stopReader", adaptor.stopReader());
    place.reader->listen({});
}

void tellCardSessions(Lines& lines) {
    Workplace place;
    ReaderImpl& adaptor = place.start();
    EXPECT_TRUE(adaptor.initReader());
    adaptor.setTagPromptFlag(false);
    CommandDoor door(adaptor);
    const Bytes uid{0x08, 1, 2, 3}, other{0x08, 4, 5, 6};
    place.reader->field().place(scriptedCard(uid));
    const std::string second = place.reader->field().place(scriptedCard(other, {0x72, 0x77, 0x81, 0x02}));
    place.reader->field().setPresent(second, false);
    Transcript transcript(*place.reader);
    const auto say = [&](const std::string& name, int status) { lines["card " + name] = transcript.taken(status); };
    say("wait", door.wait());
    say("send", door.send(uid, {0x80, 0x00}));
    say("more time", door.send(uid, {0x80, 0x02}));
    say("chains", door.send(uid, Bytes(500, 0x80)));
    EXPECT_EQ(place.reader->addFaults("block 1 lost"), "");
    say("lost block", door.sendRaw(uid, {0x80, 0x01, 0x07}));
    EXPECT_EQ(place.reader->addFaults("block from 1 lost"), "");
    say("lost blocks", door.send(uid, {0x80, 0x00}, true));
    place.reader->clearFaults();
    say("known again", door.send(uid, {0x80, 0x00}));
    place.reader->field().setPresent(second, true);
    say("another card", door.send(other, Bytes(60, 0x80)));
    say("deselect", door.deselect(uid));
    say("deselect unknown", door.deselect(uid));
    say("relay", door.relay({0x02}));
    place.reader->listen({});
}

TEST(Transcripts, AreAsTheyWere) {
    Lines lines;
    tellReaderOperations(lines);
    tellCardSessions(lines);
    tellTagOperations(lines);
    const std::string file = std::string(QVL_TRANSCRIPTS) + (isMf500UnderTest() ? "/mf500.txt" : "/tama.txt");
    if (std::getenv("QVL_RECORD_TRANSCRIPTS") != nullptr) {
        std::ofstream out(file);
        for (const auto& [name, heard] : lines)
            out << name << ": " << heard << "\n";
    }
    std::ifstream in(file);
    std::size_t known = 0;
    for (std::string line; std::getline(in, line); ++known) {
        const std::string name = line.substr(0, line.find(": "));
        EXPECT_EQ(name + ": " + lines[name], line);
    }
    EXPECT_EQ(known, lines.size());
}

}  // namespace
