#pragma once

#include "ChildProgram.h"
#include "ReaderUnderTest.h"
#include "TempDirectory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

/// A machine without a reader, on which qvltag runs. It leaves nothing behind in the directory for temporary files.
class QvltagTest : public ::testing::Test {
  protected:
    struct Result {
        int status = -1;
        std::string out, err;
    };
    using Words = std::vector<std::string>;
    using Json = nlohmann::json;

    QvltagTest() {
        std::filesystem::create_directories(place / "tmp");
        // A serial port that no machine has.
        place.write("installed/data/conf/QVLReader.ini", "[READER]\nSERIAL_PORT=77\n[/READER]\n");
    }
    static Words joined(Words words, const Words& more) {
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    /// Words of a command line; what is quoted in "" is one.
    static Words wordsOf(const std::string& line) {
        Words words;
        std::istringstream text(line);
        for (std::string word; text >> std::quoted(word);)
            words.push_back(word);
        return words;
    }
    void TearDown() override {
        EXPECT_TRUE(std::filesystem::is_empty(place / "tmp")) << "left behind in the temporary directory";
    }

    /// A virtual reader that the arguments bring is the model under test, if they do not choose one.
    std::unique_ptr<ChildProgram> start(Words arguments, const std::string& program = QVLTAG) {
        const auto virtualReader = std::ranges::find(arguments, "--virtual");
        if (isMf500UnderTest() && virtualReader != arguments.end() && !std::ranges::count(arguments, "--reader"))
            arguments.insert(virtualReader, {"--reader", readerUnderTest()});
        return std::make_unique<ChildProgram>(program, arguments, environment);
    }
    Result run(const Words& arguments, const std::string& program = QVLTAG) {
        const auto child = start(arguments, program);
        Result result;
        result.out = child->rest();
        result.err = child->rest(ChildProgram::errors);
        result.status = child->wait();
        return result;
    }
    /// The same with --json. Every line must be an object and nothing else may be said.
    std::vector<Json> runJson(const Words& arguments, int status) {
        const Result result = run(joined({"--json"}, arguments));
        EXPECT_EQ(result.status, status) << result.out;
        EXPECT_EQ(result.err, "");
        std::vector<Json> all;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            all.push_back(Json::parse(line, nullptr, false));
            EXPECT_TRUE(all.back().is_object()) << line;
        }
        return all;
    }
    /// As many objects as expected; empty ones for those that are missing.
    static std::vector<Json> exactly(std::size_t count, std::vector<Json> all) {
        EXPECT_EQ(all.size(), count);
        all.resize(count, Json::object());
        return all;
    }
    static Json only(const std::vector<Json>& all) { return exactly(1, all)[0]; }

    /// A reader of the machine, steered through its input; without tags at first.
    std::unique_ptr<ChildProgram> plugReaderIn() {
        auto reader =
            start({"--root", environment["QVL_DEVICE_ROOT"], "--socket", "reader", "--reader", readerUnderTest()},
                  QVLREADERSIM);
        EXPECT_EQ(reader->line().substr(0, 5), "ready");
        return reader;
    }
    std::string classicImage() {
        return place.write("classic.mfd", std::string("\x01\x02\x03\x04\x04", 5) + std::string(1019, '\0'));
    }
    std::string ultralightImage() {
        return place.write("light.bin", "\x04\x21\x32\x9F\x43\x54\x65\x76\x04" + std::string(55, '\0'));
    }

    const TempDirectory place;
    std::map<std::string, std::string> environment{
        {"QVL_PATH", place / "installed"}, {"QVL_DEVICE_ROOT", place / "devices"}, {"TMPDIR", place / "tmp"}};
};
