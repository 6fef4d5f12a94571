#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// One option or argument of a command, as a handle. Each call refines it and returns the same handle.
class Option {
  public:
    explicit Option(CLI::Option& option) : mOption(&option) {}

    Option required() const;
    /// What the help shows for its value; empty for an argument, whose name says it.
    Option type(const char* name) const;
    Option description(const char* text) const;
    Option range(int least, int most) const;
    Option range(unsigned least, unsigned most) const;
    Option range(std::int64_t least, std::int64_t most) const;
    Option range(double least, double most) const;
    Option oneOf(const std::vector<std::string>& values) const;
    /// So many words make one value.
    Option words(int least, int most) const;
    Option onceEach() const;
    Option excludes(Option other) const;
    Option needs(Option other) const;
    /// How often the line has it.
    std::size_t count() const;

  private:
    CLI::Option* mOption;
};

/// The options and arguments of one command: what the library that reads the command line is used for, without its
/// header, which takes longer to compile than all else in a command. A name with dashes is an option, one without is an
/// argument in its place. Values are stored while the line is parsed, so what they are stored in has to live until
/// then.
class Options {
  public:
    explicit Options(CLI::App& app) : mApp(app) {}

    Option flag(const char* name, bool& set, const char* description);
    /// A flag that does something.
    Option flag(const char* name, std::function<void()> act, const char* description);
    Option value(const char* name, short& value, const char* description);
    Option value(const char* name, int& value, const char* description);
    Option value(const char* name, std::optional<int>& value, const char* description);
    Option value(const char* name, unsigned& value, const char* description);
    Option value(const char* name, std::int64_t& value, const char* description);
    Option value(const char* name, double& value, const char* description);
    Option value(const char* name, std::optional<double>& value, const char* description);
    Option value(const char* name, std::string& value, const char* description);
    Option value(const char* name, std::vector<std::string>& values, const char* description);
    /// A text that `take` reads. What it throws becomes a complaint about this option.
    Option text(const char* name, std::function<void(const std::string&)> take, const char* description);
    /// One of some words, each of which stands for a value. `target` is one such value, or an optional one.
    template <typename Value, typename Target>
    Option choice(const char* name, Target& target, const std::map<std::string, Value>& words, bool ignoreCase,
                  const std::string& description) {
        std::map<std::string, int> numbers;
        for (const auto& [word, value] : words)
            numbers.emplace(word, static_cast<int>(value));
        const auto store = [&target](int number) { target = static_cast<Value>(number); };
        return addChoice(name, store, numbers, ignoreCase, description);
    }

    void footer(const char* text);
    /// Runs `check` once all values are stored. What it throws becomes a complaint.
    void whenRead(std::function<void()> check);

    CLI::App& app() const { return mApp; }

  private:
    Option addChoice(const char* name, std::function<void(int)> store, const std::map<std::string, int>& words,
                     bool ignoreCase, const std::string& description);

    CLI::App& mApp;
};

/// Reads a whole number as values of options are read. @return false if the text is none.
bool readNumber(const std::string& text, int& number);
