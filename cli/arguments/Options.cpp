#include "Options.h"

#include "Command.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

Option Option::required() const { return Option(*mOption->required()); }
Option Option::type(const char* name) const { return Option(*mOption->type_name(name)); }
Option Option::description(const char* text) const { return Option(*mOption->description(text)); }
Option Option::range(int least, int most) const { return Option(*mOption->check(CLI::Range(least, most))); }
Option Option::range(unsigned least, unsigned most) const { return Option(*mOption->check(CLI::Range(least, most))); }
Option Option::range(std::int64_t least, std::int64_t most) const {
    return Option(*mOption->check(CLI::Range(least, most)));
}
Option Option::range(double least, double most) const { return Option(*mOption->check(CLI::Range(least, most))); }
Option Option::oneOf(const std::vector<std::string>& values) const {
    return Option(*mOption->check(CLI::IsMember(values)));
}
Option Option::words(int least, int most) const { return Option(*mOption->expected(least, most)); }
Option Option::onceEach() const { return Option(*mOption->allow_extra_args(false)); }
Option Option::excludes(Option other) const { return Option(*mOption->excludes(other.mOption)); }
Option Option::needs(Option other) const { return Option(*mOption->needs(other.mOption)); }
std::size_t Option::count() const { return mOption->count(); }

Option Options::flag(const char* name, bool& set, const char* description) {
    return Option(*mApp.add_flag(name, set, description));
}
Option Options::flag(const char* name, std::function<void()> act, const char* description) {
    return Option(*mApp.add_flag(
        name, [act = std::move(act)](std::int64_t) { act(); }, description));
}
Option Options::value(const char* name, short& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, int& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, std::optional<int>& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}

Option Options::value(const char* name, unsigned& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, std::int64_t& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, double& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, std::optional<double>& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, std::string& value, const char* description) {
    return Option(*mApp.add_option(name, value, description));
}
Option Options::value(const char* name, std::vector<std::string>& values, const char* description) {
    return Option(*mApp.add_option(name, values, description));
}

Option Options::text(const char* name, std::function<void(const std::string&)> take, const char* description) {
    const auto read = [name, take = std::move(take)](const std::string& text) {
        try {
            take(text);
        } catch (const std::exception& wrong) {
            throw CLI::ValidationError(name, wrong.what());
        }
    };
    return Option(*mApp.add_option_function<std::string>(name, read, description)->type_name(""));
}

Option Options::addChoice(const char* name, std::function<void(int)> store, const std::map<std::string, int>& words,
                          bool ignoreCase, const std::string& description) {
    const CLI::CheckedTransformer transformer =
        ignoreCase ? CLI::CheckedTransformer(words, CLI::ignore_case) : CLI::CheckedTransformer(words);
    return Option(*mApp.add_option_function<int>(name, std::move(store), description)->transform(transformer));
}

void Options::footer(const char* text) { mApp.footer(text); }

void Options::whenRead(std::function<void()> check) {
    mApp.callback([check = std::move(check)] {
        try {
            check();
        } catch (const std::exception& wrong) {
            throw CLI::ValidationError(wrong.what());
        }
    });
}

bool readNumber(const std::string& text, int& number) { return CLI::detail::lexical_cast(text, number); }

Work addCommands(Options& options, std::span<const Command> commands, const char* heading) {
    CLI::App& app = options.app();
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    const auto works = std::make_shared<std::vector<std::pair<CLI::App*, Work>>>();
    for (const Command& command : commands) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->group(heading);
        sub->fallthrough();
        sub->footer("");  // The one of the family is not its members'.
        Options own(*sub);
        works->emplace_back(sub, command.setUp(own));
    }
    return [works](Session& session) {
        return std::ranges::find_if(*works, [](const auto& each) { return each.first->parsed(); })->second(session);
    };
}
