#include "LineCommands.h"

#include "HexText.h"
#include "TagImage.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

std::string ok(const std::string& text = {}) { return text.empty() ? "ok\n" : "ok " + text + "\n"; }

std::string error(const std::string& text) { return "error: " + text + "\n"; }

std::string noSuchTag(const std::string& name) {
    return error(name.empty() ? "the name of a tag is missing; \"list\" shows them"
                              : "there is no tag \"" + name + "\"; \"list\" shows them");
}

std::string trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kBlank);
    if (begin == std::string_view::npos) return {};
    return std::string(text.substr(begin, text.find_last_not_of(kBlank) - begin + 1));
}

/// The first word, and what stands after it.
std::pair<std::string, std::string> splitWord(const std::string& text) {
    const std::size_t length = std::min(text.find_first_of(" \t"), text.size());
    return {text.substr(0, length), trimmed(std::string_view(text).substr(length))};
}

const char* stateName(const VirtualField::Entry& entry) {
    if (!entry.present) return "away";
    constexpr const char* kNames[] = {"off", "idle", "ready", "active", "halted"};
    return kNames[static_cast<std::size_t>(entry.tag->state())];
}

}  // namespace

struct LineCommands::Command {
    std::string_view word;
    std::string (LineCommands::*run)(const std::string& rest);
    const char* help;
};

const LineCommands::Command LineCommands::kCommands[] = {
    {"place", &LineCommands::onPlace, "place FILE [as NAME]   lay a tag into the field; answers its name"},
    {"remove", &LineCommands::onRemove, "remove NAME            take a tag away for good"},
    {"away", &LineCommands::onAway, "away NAME              hold a tag away from the field, for \"back\" or a fault"},
    {"back", &LineCommands::onBack, "back NAME              bring it back"},
    {"list", &LineCommands::onList, "list                   the tags: name, kind, UID, state, origin"},
    {"save", &LineCommands::onSave, "save NAME [FILE]       write the image of a tag, to its own file or another"},
    {"reader", &LineCommands::onReader, "reader gone|back       pull the reader out, plug it in again"},
    {"fault", &LineCommands::onFault, "fault RULE             add a rule to the fault plan, e.g. fault 40 2 no reply"},
    {"faults", &LineCommands::onFaults, "faults clear           forget all rules"},
    {"led", &LineCommands::onLed, "led                    the LED byte that the host sent last"},
    {"field", &LineCommands::onField, "field                  whether the field is on"},
    {"help", &LineCommands::onHelp, "help                   this list"},
    {"quit", &LineCommands::onQuit, "quit                   end the program"},
};

LineCommands::LineCommands(std::shared_ptr<VirtualReader> reader, TagQuirks quirks, bool saveTags)
    : mReader(std::move(reader)), mQuirks(quirks), mSaveTags(saveTags) {}

std::string LineCommands::run(std::string_view line) {
    const auto [word, rest] = splitWord(trimmed(line));
    if (word.empty()) return {};
    const auto command = std::ranges::find(kCommands, word, &Command::word);
    if (command == std::end(kCommands)) return error("unknown command \"" + word + "\"; \"help\" lists them");
    return (this->*command->run)(rest);
}

std::string LineCommands::place(const std::string& pathOrSpec, const std::string& name) {
    MadeTag made = makeTag(pathOrSpec, mQuirks);
    if (!made.tag) return error(made.message);
    const std::string placed = mReader->field().place(std::move(made.tag), name);
    if (placed.empty()) return error("the name \"" + name + "\" is taken; \"remove " + name + "\" frees it");
    mSources[placed] = pathOrSpec;
    return ok(placed + (made.message.empty() ? "" : " " + made.message));
}

std::string LineCommands::onPlace(const std::string& rest) {
    constexpr std::string_view kAs = " as ";
    const std::size_t as = rest.rfind(kAs);
    const std::string file = trimmed(std::string_view(rest).substr(0, as));
    const std::string name = as == std::string::npos ? "" : trimmed(std::string_view(rest).substr(as + kAs.size()));
    if (file.empty()) return error("a file is missing: place FILE [as NAME]");
    if (name.find_first_of(" \t") != std::string::npos) return error("a name is one word: place FILE [as NAME]");
    return place(file, name);
}

std::string LineCommands::onRemove(const std::string& name) {
    const auto tag = mReader->field().find(name);
    if (!tag || !mReader->field().remove(name)) return noSuchTag(name);
    const std::string failure = saveChanged(name, *tag);
    mSources.erase(name);
    return failure.empty() ? ok() : error(failure);
}

std::string LineCommands::setPresent(const std::string& name, bool present) {
    return mReader->field().setPresent(name, present) ? ok() : noSuchTag(name);
}

std::string LineCommands::onAway(const std::string& name) { return setPresent(name, false); }

std::string LineCommands::onBack(const std::string& name) { return setPresent(name, true); }

std::string LineCommands::onList(const std::string&) {
    std::string lines;
    const auto held = mReader->field().lock();
    for (const VirtualField::Entry& entry : mReader->field().list()) {
        const auto source = mSources.find(entry.name);
        lines += entry.name + "  " + entry.tag->kind() + "  " +
                 hexText(entry.tag->uid().data(), entry.tag->uid().size()) + "  " + stateName(entry) +
                 (source == mSources.end() ? "" : "  " + source->second) + "\n";
    }
    return lines + ok();
}

std::string LineCommands::onSave(const std::string& rest) {
    const auto [name, file] = splitWord(rest);
    const auto tag = mReader->field().find(name);
    if (!tag) return noSuchTag(name);
    const auto source = mSources.find(name);
    std::string path = file;
    if (path.empty() && source != mSources.end()) path = imagePathOf(source->second);
    if (path.empty()) return error("\"" + name + "\" has no image file of its own: save " + name + " FILE");
    const auto held = mReader->field().lock();
    const std::string failure = saveTag(*tag, path);
    return failure.empty() ? ok(path) : error(failure);
}

std::string LineCommands::onReader(const std::string& rest) {
    if (rest == "gone")
        mReader->vanish();
    else if (rest == "back")
        mReader->comeBack();
    else
        return error("\"reader\" takes \"gone\" or \"back\"");
    const std::string wrong = mSettle ? mSettle() : std::string();
    return wrong.empty() ? ok() : error(wrong);
}

std::string LineCommands::onFault(const std::string& rest) {
    const std::string wrong = mReader->addFault(std::string_view(rest));
    return wrong.empty() ? ok() : error(wrong);
}

std::string LineCommands::onFaults(const std::string& rest) {
    if (rest != "clear") return error("\"faults\" takes \"clear\"");
    mReader->clearFaults();
    return ok();
}

std::string LineCommands::onLed(const std::string&) {
    const std::uint8_t byte = mReader->ledByte();
    return ok(hexText(&byte, 1));
}

std::string LineCommands::onField(const std::string&) { return ok(mReader->isFieldOn() ? "on" : "off"); }

std::string LineCommands::onHelp(const std::string&) {
    std::string lines;
    for (const Command& command : kCommands)
        lines += std::string(command.help) + "\n";
    return lines + ok();
}

std::string LineCommands::onQuit(const std::string&) {
    mQuit = true;
    return ok();
}

/// @return empty or what went wrong.
std::string LineCommands::saveChanged(const std::string& name, VirtualTag& tag) {
    const auto source = mSources.find(name);
    if (!mSaveTags || source == mSources.end()) return {};
    const auto held = mReader->field().lock();
    if (!tag.memory() || tag.memory()->writeCount() == 0) return {};
    const std::string path = imagePathOf(source->second);
    return path.empty() ? std::string() : saveTag(tag, path);
}

std::string LineCommands::saveAll() {
    std::string failures;
    for (const VirtualField::Entry& entry : mReader->field().list()) {
        const std::string failure = saveChanged(entry.name, *entry.tag);
        if (!failure.empty()) failures += failure + "\n";
    }
    return failures;
}
