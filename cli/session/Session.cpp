#include "Session.h"

#include "ErrorText.h"
#include "Text.h"

#include <algorithm>

namespace {

using Clock = qvl::Limit::Clock;

constexpr const char* kTagPrompt = "Hold a tag to the reader, Ctrl-C cancels";
constexpr const char* kReaderPrompt = "Waiting for a reader, Ctrl-C cancels";
/// A wait that is shorter, as for the end of another program's operation, is not worth a line.
constexpr std::chrono::milliseconds kUntilPrompt{200};

Clock::time_point deadlineOf(const SessionSettings& settings) {
    return qvl::Limit(fromSeconds(settings.deadlineSeconds.value_or(1e9))).deadline();
}

}  // namespace

Session::Session(SessionSettings settings, Output& output, Interrupt& interrupt)
    : mSettings(std::move(settings)), mOutput(output), mInterrupt(interrupt), mDeadline(deadlineOf(mSettings)) {}

void Session::open() {
    if (!mSettings.images.empty()) {
        const auto isFile = [](const std::string& image) { return !image.starts_with("new:"); };
        if (mSettings.saveImages && !std::ranges::any_of(mSettings.images, isFile))
            throw Problem{Outcome::usage,
                          "nothing to save",
                          "--save writes tags back to their files, and new tags have none",
                          "\"dump FILE\" makes a file of a new tag.",
                          0,
                          ""};
        qvl::VirtualReader::Options options;
        options.model =
            mSettings.model == "mf500" ? qvl::VirtualReader::Model::mfRc500 : qvl::VirtualReader::Model::pn531;
        options.tags = mSettings.images;
        options.saveOnExit = mSettings.saveImages;
        startVirtualReader(options);
        for (const std::string& remark : mVirtualReader->remarks())
            mOutput.note(remark);
    }
    const auto begin = Clock::now();
    const qvl::Limit ofReader =
        limit(fromSeconds(mSettings.readerSeconds), nullptr).withPatience(patience()).asking([this, begin] {
            if (Clock::now() - begin > kUntilPrompt) mOutput.line(kReaderPrompt);
            return !mInterrupt.requested();
        });
    mReader.emplace(ofReader, [this](const std::string& port, bool isNamed) {
        if (isNamed) mOutput.line("Looking for a reader on serial port " + port);
        return isNamed;
    });
}

void Session::startVirtualReader(const qvl::VirtualReader::Options& options) {
    try {
        mVirtualReader.emplace(options);
    } catch (const qvl::Error& error) {
        const bool isTag = error.reason() == qvl::Reason::badArgument;
        throw Problem{isTag ? Outcome::usage : Outcome::noReader,
                      isTag ? "no such tag" : "no virtual reader",
                      error.what(),
                      isTag ? "--virtual takes an image file, a .card file or new:KIND, as qvlreadersim(1) has them."
                            : "",
                      0,
                      qvl::name(error.reason())};
    }
}

Outcome Session::close() {
    mReader.reset();
    const std::string complaint = mVirtualReader ? mVirtualReader->end() : std::string();
    if (complaint.empty()) return Outcome::done;
    return mOutput.error({Outcome::failed, "virtual reader", complaint, "", 0, ""});
}

/// How long another program is waited for if nothing is said.
std::chrono::milliseconds Session::patience() const {
    constexpr std::chrono::seconds kPatience{30};
    const auto wanted = std::max<std::chrono::milliseconds>(fromSeconds(mSettings.readerSeconds), kPatience);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(mDeadline - Clock::now());
    return std::min(wanted, left);
}

qvl::Limit Session::limit() {
    if (!mSettings.wait)
        return qvl::Limit::now().withPatience(patience()).asking([this] { return !mInterrupt.requested(); });
    return limit(fromSeconds(mSettings.waitSeconds), kTagPrompt);
}

qvl::Limit Session::limit(std::optional<std::chrono::milliseconds> time, const char* prompt) {
    const auto begin = Clock::now();
    const auto end = time ? std::min(qvl::Limit(*time).deadline(), mDeadline) : mDeadline;
    return qvl::Limit(end).withPatience(patience()).asking([this, begin, prompt] {
        if (prompt != nullptr && Clock::now() - begin > kUntilPrompt) mOutput.prompt(prompt);
        return !mInterrupt.requested();
    });
}

void Session::goOn() {
    if (mInterrupt.requested()) throw qvl::Error(qvl::Reason::cancelled, "cancelled");
    if (Clock::now() >= mDeadline) throw qvl::Error(qvl::Reason::timedOut, "the deadline of the command is over");
}

Outcome Session::fail(const qvl::Error& error, const std::string& where) {
    return mOutput.error(problemOf(error), where);
}
