// "value": blocks that hold an amount.

#include "Command.h"
#include "DataOptions.h"
#include "ServiceStatus.h"
#include "TagAccess.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

namespace {

constexpr short kValueBlockKind = 2052;
constexpr int kSameBlock = -1;

struct ValueArguments {
    TagAccess access;
    std::optional<Key> keyA, keyB;
    int block = 0;
    std::int64_t amount = 0;
    int to = kSameBlock;
    bool decrementOnly = false;
};

std::string blockText(int block) { return "block " + std::to_string(block); }

Outcome getValue(Session& session, const ValueArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    int value = 0;
    const int status =
        session.adaptor().getValue(0, access.appType(), tag, access.appId(), access.keyMode, access.key.data(),
                                   arguments.block, value, access.madKeyMode, access.madKeyBytes());
    if (status != kOk) return session.fail(status, blockText(arguments.block));
    session.output().put({{"block", arguments.block}, {"value", value}}, std::to_string(value));
    return Outcome::done;
}

Outcome setValue(Session& session, const ValueArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    const auto value = static_cast<int>(arguments.amount);
    const int status =
        session.adaptor().setValue(0, access.appType(), tag, access.appId(), access.keyMode, access.key.data(),
                                   arguments.block, value, access.madKeyMode, access.madKeyBytes());
    if (status != kOk) return session.fail(status, blockText(arguments.block));
    session.output().put({{"block", arguments.block}, {"value", value}},
                         blockText(arguments.block) + " is " + std::to_string(value));
    return Outcome::done;
}

Outcome adjustValue(Session& session, const ValueArguments& arguments, const TagUID& tag, ValueBlockOper operation) {
    const TagAccess& access = arguments.access;
    const int status = session.adaptor().adjustValue(
        0, access.appType(), tag, access.appId(), access.keyMode, access.key.data(), arguments.block, operation,
        static_cast<unsigned>(arguments.amount), arguments.to, access.madKeyMode, access.madKeyBytes());
    if (status != kOk) return session.fail(status, blockText(arguments.block));
    const bool up = operation == ValueIncrement;
    const std::string amount = std::to_string(arguments.amount), block = blockText(arguments.block);
    Json object{{"block", arguments.block}, {up ? "added" : "taken", arguments.amount}};
    if (arguments.to != kSameBlock) object.add("to", arguments.to);
    session.output().put(object, arguments.to == kSameBlock
                                     ? amount + (up ? " added to " : " taken from ") + block
                                     : blockText(arguments.to) + " is " + block + (up ? " plus " : " less ") + amount);
    return Outcome::done;
}

Outcome makeValueBlock(Session& session, const ValueArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    ReaderImpl& adaptor = session.adaptor();
    const auto value = static_cast<int>(arguments.amount);
    const std::uint8_t *keyA = arguments.keyA->data(), *keyB = arguments.keyB->data();
    const int status =
        arguments.decrementOnly
            ? adaptor.initDecrementOnlyBlock(0, access.appType(), tag, access.appId(), keyA, keyB, arguments.block,
                                             value, access.madKeyMode, access.madKeyBytes())
            : adaptor.setDataBlockType(0, access.appType(), access.appId(), tag, keyA, keyB,
                                       static_cast<short>(arguments.block), kValueBlockKind, AccData110,
                                       static_cast<unsigned>(value), access.madKeyMode, access.madKeyBytes());
    if (status != kOk) return session.fail(status, blockText(arguments.block));
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
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return operation(session, *arguments, tag); });
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

template <ValueBlockOper operation>
Work setUpAdjust(Options& options) {
    const auto arguments = std::make_shared<ValueArguments>();
    addPlace(options, *arguments);
    addAmount(options, *arguments, "By how much", 1);
    options.value("--to", arguments->to, "Put the result into this block of the sector instead")
        .type("BLOCK")
        .range(0, kLastBlock);
    addKeyOptions(options, arguments->access);
    options.footer("If it is unknown whether the change took place, read the value before you repeat it.");
    return workOf(arguments, [](Session& session, const ValueArguments& given, const TagUID& tag) {
        return adjustValue(session, given, tag, operation);
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
        {"inc", "Add to the value", setUpAdjust<ValueIncrement>},
        {"dec", "Take from the value", setUpAdjust<ValueDecrement>},
        {"init", "Make a value block", setUpValueInit},
    };
    return addCommands(options, kCommands);
}
