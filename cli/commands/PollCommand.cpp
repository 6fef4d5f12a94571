// "poll": tells of the tags that come and go and of the reader.

#include "Command.h"
#include "ErrorText.h"
#include "Text.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace {

constexpr double kShortestSeconds = 0.001, kLongestSeconds = 1e6;
constexpr unsigned kLargestCount = 1'000'000'000;
constexpr std::chrono::milliseconds kRoundPause{100};

struct PollArguments {
    unsigned count = 0;  // 0 for no end
    std::optional<double> seconds;
    bool forced = false;
    bool once = false;
};

class Poll {
  public:
    Poll(Session& session, const PollArguments& arguments) : mSession(session), mArguments(arguments) {}

    /// A single look.
    Outcome once() {
        for (const qvl::Tag& tag : mSession.reader().tags(qvl::Limit::now().asking(goesOnQuestion())))
            tellTag("tag arrived", std::chrono::system_clock::now(), tag.uid(), tag.type());
        return mSeen > 0 ? Outcome::done : mSession.fail({qvl::Reason::noTag, kNoTag, qvl::statusInfo(kNoTag).meaning});
    }
    /// Every tag in every round.
    Outcome rounds() {
        qvl::Watch watch = mSession.reader().watch();
        const qvl::Limit limit = wholeTime();
        while (goesOn() && !limit.isOver()) {
            const qvl::Limit round = qvl::Limit::now().asking(goesOnQuestion());
            while (const auto event = next(watch, round))
                if (event->uid.empty()) tell(name(event->kind), event->time, {});
            tellAll(round);
            if (goesOn()) mSession.interrupt().waitFor(kRoundPause);
        }
        return end();
    }
    Outcome follow() {
        qvl::Watch watch = mSession.reader().watch();
        const qvl::Limit limit = wholeTime();
        while (goesOn()) {
            const auto event = next(watch, limit);
            if (!event) break;
            if (event->uid.empty())
                tell(name(event->kind), event->time, {});
            else
                tellTag(name(event->kind), event->time, event->uid, event->type);
        }
        return end();
    }

  private:
    bool goesOn() const {
        return (mArguments.count == 0 || mSeen < mArguments.count) && !mSession.interrupt().requested() &&
               mSession.output().isOpen();
    }
    std::function<bool()> goesOnQuestion() {
        return [this] { return !mSession.interrupt().requested(); };
    }
    qvl::Limit wholeTime() {
        std::optional<std::chrono::milliseconds> time;
        if (mArguments.seconds) time = fromSeconds(*mArguments.seconds);
        return qvl::Limit(mSession.limit(time, nullptr).deadline()).asking(goesOnQuestion());
    }
    /// None while the reader is lost.
    void tellAll(const qvl::Limit& limit) {
        try {
            for (const qvl::Tag& tag : mSession.reader().tags(limit))
                if (goesOn()) tellTag("tag", std::chrono::system_clock::now(), tag.uid(), tag.type());
        } catch (const qvl::Error& error) {
            using qvl::Reason;
            if (error.reason() != Reason::readerLost && error.reason() != Reason::noReader &&
                error.reason() != Reason::cancelled)
                throw;
        }
    }
    static std::optional<qvl::Event> next(qvl::Watch& watch, const qvl::Limit& limit) {
        try {
            return watch.next(limit);
        } catch (const qvl::Error& error) {
            const bool isTimeOver = error.reason() == qvl::Reason::readerBusy && limit.isOver();
            if (!isTimeOver && error.reason() != qvl::Reason::cancelled) throw;
            return std::nullopt;
        }
    }
    /// Done with what was asked for: a number of tags, a time, or until Ctrl-C.
    Outcome end() {
        if (mArguments.count == 0 || mSeen >= mArguments.count) return Outcome::done;
        if (mSession.interrupt().requested()) return mSession.fail({qvl::Reason::cancelled, kCancelled, "cancelled"});
        if (!mSession.output().isOpen()) return Outcome::failed;
        return mSession.output().error(
            {Outcome::failed, "wait over",
             "the time is over, with " + counted(mSeen, "tag") + " of " + std::to_string(mArguments.count),
             "Wait longer with --for.", kWaitOver, qvl::name(qvl::Reason::timedOut)});
    }

    void tellTag(const char* event, std::chrono::system_clock::time_point time, const qvl::Uid& uid,
                 std::uint32_t tagType) {
        if (std::string_view(event) != "tag left") ++mSeen;
        tell(event, time, {{"uid", uid.text()}, {"type", tagInfoByType(tagType).name}});
    }
    void tell(const char* event, std::chrono::system_clock::time_point time,
              const std::vector<std::pair<std::string, std::string>>& members) {
        const std::int64_t seconds = std::chrono::system_clock::to_time_t(time);
        Json object{{"event", event}, {"time", isoTime(seconds)}};
        std::string text = clockTime(seconds) + "  " + event;
        for (const auto& [name, value] : members) {
            object.add(name, value);
            text += "  " + value;
        }
        mSession.output().put(object, text);
    }

    Session& mSession;
    const PollArguments& mArguments;
    unsigned mSeen = 0;
};

}  // namespace

Work setUpPoll(Options& options) {
    const auto arguments = std::make_shared<PollArguments>();
    const Option count =
        options.value("--count", arguments->count, "End after this many tags").type("N").range(1U, kLargestCount);
    const Option seconds = options.value("--for", arguments->seconds, "End after this time")
                               .type("SECONDS")
                               .range(kShortestSeconds, kLongestSeconds);
    options.flag("--forced", arguments->forced, "Tell of every tag in the field in each round");
    options.flag("--once", arguments->once, "A single look, which fails if no tag is there")
        .excludes(count)
        .excludes(seconds);
    options.footer("A tag that comes is told once, and so is one that leaves. Without --count, --for or --once\n"
                   "it goes on until Ctrl-C. If the reader is unplugged and plugged in again, it says so and\n"
                   "goes on; with --wait-for-reader it also waits for the first one.\n\n"
                   "Example: qvltag --virtual new:1k --virtual new:ultralight poll --count 2");
    return [arguments](Session& session) {
        Poll poll(session, *arguments);
        if (arguments->once) return poll.once();
        return arguments->forced ? poll.rounds() : poll.follow();
    };
}
