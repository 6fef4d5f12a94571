// "value": blocks that hold an amount.

#include "Command.h"
#include "DataOptions.h"
#include "TagAccess.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

namespace {

struct ValueArguments {
    TagAccess access;
    std::optional<qvl::Key> keyA, keyB;
    int block = 0;
    std::int64_t amount = 0;
    std::optional<int> to;
    bool decrementOnly = false;
};

std::string blockText(int block) { return "block " + std::to_string(block); }

Outcome getValue(Session& session, const ValueArguments& arguments, const qvl::Memory& memory) {
    const std::int32_t value = memory.value(arguments.block, arguments.access.login, session.limit());
    session.output().put({{"block", arguments.block}, {"value", value}}, std::to_string(value));
    return Outcome::done;
}

Outcome setValue(Session& session, const ValueArguments& arguments, const qvl::Memory& memory) {
    const auto value = static_cast<std::int32_t>(arguments.amount);
    memory.setValue(arguments.block, value, arguments.access.login, session.limit());
    session.output().put({{"block", arguments.block}, {"value", value}},
                         blockText(arguments.block) + " is " + std::to_string(value));
    return Outcome::done;
}

Outcome adjustValue(Session& session, const ValueArguments& arguments, const qvl::Memory& memory, bool up) {
    const auto adjust = up ? &qvl::Memory::increment : &qvl::Memory::decrement;
    (memory.*adjust)(arguments.block, static_cast<std::uint32_t>(arguments.amount), arguments.access.login,
                     arguments.to, session.limit());
    const std::string amount = std::to_string(arguments.amount), block = blockText(arguments.block);
    Json object{{"block", arguments.block}, {up ? "added" : "taken", arguments.amount}};
    if (arguments.to) object.add("to", *arguments.to);
    session.output().put(object, !arguments.to
                                     ? amount + (up ? " added to " : " taken from ") + block
                                     : blockText(*arguments.to) + " is " + block + (up ? " plus " : " less ") + amount);
    return Outcome::done;
}

Outcome makeValueBlock(Session& session, const ValueArguments& arguments, const qvl::Memory& memory) {
    const auto make = arguments.decrementOnly ? &qvl::Memory::makeDecrementOnlyBlock : &qvl::Memory::makeValueBlock;
    const auto value = static_cast<std::int32_t>(arguments.amount);
    (memory.*make)(arguments.block, value, {*arguments.keyA, *arguments.keyB}, session.limit());
    session.output().put({{"block", arguments.block}, {"value", value}, {"decrementOnly", arguments.decrementOnly}},
                         blockText(arguments.block) + " is a value block of " + std::to_string(value) +
                             (arguments.decrementOnly ? ", which can only be decremented" : ""));
    return Outcome::done;
}

void addPlace(Options& options, ValueArguments& arguments) {
    options.value("BLOCK", arguments.block, "The value block, counted from 0").required().type("").range(0, kLastBlock);
    addAppOption(options, arguments.access);
    addUidOption(options, arguments.access);
}

void addAmount(Options& options, ValueArguments& arguments, const char* description, std::int64_t least) {
    options.value("N", arguments.amount, description)
        .required()
        .type("")
        .range(least, std::int64_t{std::numeric_limits<std::int32_t>::max()});
}

/// Work of one operation on a tag.
template <typename Operation>
Work workOf(const std::shared_ptr<ValueArguments>& arguments, Operation operation) {
    return [arguments, operation](Session& session) {
        return onMemory(session, arguments->access,
                        [&](const qvl::Memory& memory) { return operation(session, *arguments, memory); });
    };
}

Work setUpGet(Options& options) {
    const auto arguments = std::make_shared<ValueArguments>();
    addPlace(options, *arguments);
    addKeyOptions(options, arguments->access);
    return workOf(arguments, getValue);
}

Work setUpSet(Options& options) {
    const auto arguments = std::make_shared<ValueArguments>();
    addPlace(options, *arguments);
    addAmount(options, *arguments, "The new value", std::numeric_limits<std::int32_t>::min());
    addKeyOptions(options, arguments->access);
    return workOf(arguments, setValue);
}

template <bool up>
Work setUpAdjust(Options& options) {
    const auto arguments = std::make_shared<ValueArguments>();
    addPlace(options, *arguments);
    addAmount(options, *arguments, "By how much", 1);
    options.value("--to", arguments->to, "Put the result into this block of the sector instead")
        .type("BLOCK")
        .range(0, kLastBlock);
    addKeyOptions(options, arguments->access);
    options.footer("If it is unknown whether the change took place, read the value before you repeat it.");
    return workOf(arguments, [](Session& session, const ValueArguments& given, const qvl::Memory& memory) {
        return adjustValue(session, given, memory, up);
    });
}

Work setUpValueInit(Options& options) {
    const auto arguments = std::make_shared<ValueArguments>();
    addPlace(options, *arguments);
    addAmount(options, *arguments, "Its first value", std::numeric_limits<std::int32_t>::min());
    options.flag("--decrement-only", arguments->decrementOnly,
                 "A block that nobody can fill up again; not with value 0");
    addKeyOption(options, "--key-a", arguments->keyA, "Key A of the sector, which is written again").required();
    addKeyOption(options, "--key-b", arguments->keyB, "Key B of the sector, which opens it").required();
    options.footer("What key A is given becomes key A: it cannot be read from the tag.\n"
                   "In a sector of sixteen blocks the condition reaches a group of five.\n\n"
                   "Example: qvltag value init 0 100 --app 4711 --key-a @door.a --key-b @door.b");
    options.whenRead([arguments] {
        if (arguments->decrementOnly && arguments->amount == 0)
            throw std::invalid_argument("N: a block that can only be decremented cannot start with 0");
    });
    return workOf(arguments, makeValueBlock);
}

}  // namespace

Work setUpValue(Options& options) {
    static constexpr Command kCommands[] = {
        {"get", "Show the value", setUpGet},
        {"set", "Write a value", setUpSet},
        {"inc", "Add to the value", setUpAdjust<true>},
        {"dec", "Take from the value", setUpAdjust<false>},
        {"init", "Make a value block", setUpValueInit},
    };
    return addCommands(options, kCommands);
}
