// "poll": looks into the field again and again, and tells of each tag once, or with --forced in every round.

#include "Command.h"
#include "StatusText.h"
#include "TagTypes.h"
#include "Text.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRoundPause{100};
constexpr double kShortestSeconds = 0.001, kLongestSeconds = 1e6;
constexpr unsigned kLargestCount = 1'000'000'000;

struct PollArguments {
    unsigned count = 0;  // 0 for no end
    std::optional<double> seconds;
    bool forced = false;
    bool once = false;
};

class Poll {
  public:
    Poll(Session& session, const PollArguments& arguments) : mSession(session), mArguments(arguments) {
        session.onReaderState([this](bool ready) { tell(ready ? "reader back" : "reader lost"); });
    }

    Outcome once() {
        look(mArguments.forced);
        return mSeen > 0 ? Outcome::done : mSession.fail(kNoTag);
    }

    Outcome follow() {
        const auto begin = Clock::now();
        bool timeIsUp = false;
        while (goesOn() && !timeIsUp) {
            round();
            if (!goesOn()) break;
            auto pause = kRoundPause;
            if (mArguments.seconds) {
                const auto rest = fromSeconds(*mArguments.seconds) -
                                  std::chrono::floor<std::chrono::milliseconds>(Clock::now() - begin);
                timeIsUp = rest <= pause;
                pause = std::max(std::min(rest, pause), std::chrono::milliseconds::zero());
            }
            mSession.interrupt().waitFor(pause);
        }
        if (mSeen >= mArguments.count) return Outcome::done;
        return mSession.fail(timeIsUp && !mSession.interrupt().requested() ? kWaitOver : kCancelled);
    }

  private:
    bool goesOn() const {
        return (mArguments.count == 0 || mSeen < mArguments.count) && !mSession.interrupt().requested() &&
               mSession.output().isOpen();
    }

    /// A forced look wakes all tags, the others then find those that are left. A look that is not forced ends every
    /// round, since only such a one notices a lost reader.
    void round() {
        if (mArguments.forced) look(true);
        while (goesOn() && look(false)) {
        }
    }

    /// @return true if a tag was there.
    bool look(bool forced) {
        EventObject* found = nullptr;
        if (!mSession.adaptor().pollTag(found, forced, false)) return false;
        const auto release = [this](EventObject* event) { mSession.adaptor().freeMemory(event); };
        const std::unique_ptr<EventObject, decltype(release)> event(found, release);
        ++mSeen;
        tellTag(*event);
        return true;
    }

    void tellTag(const EventObject& event) {
        std::uint32_t length = 0;
        std::uint8_t* bytes = nullptr;
        event.getUid(length, bytes);
        const std::string uid = hexDigits({bytes, length});
        mSession.adaptor().freeMemory(bytes);
        const char* type = tagInfoByType(wireToTagType(event.getType())).name;
        const std::int64_t time = event.getTime();
        mSession.output().put({{"event", "tag"}, {"time", isoTime(time)}, {"uid", uid}, {"type", type}},
                              clockTime(time) + "  " + uid + "  " + type);
    }

    void tell(const std::string& event) {
        const std::int64_t time = secondsNow();
        mSession.output().put({{"event", event}, {"time", isoTime(time)}}, clockTime(time) + "  " + event);
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
    options.flag("--forced", arguments->forced, "Tell of every tag in the field in each round, not once");
    options.flag("--once", arguments->once, "A single look, which fails if no tag is there")
        .excludes(count)
        .excludes(seconds);
    options.footer("Without --count, --for or --once it polls until Ctrl-C; it then ends successfully.\n"
                   "If the reader is unplugged and plugged in again, it says so and polls on.\n\n"
                   "Example: qvltag --virtual new:1k --virtual new:ultralight poll --count 2");
    return [arguments](Session& session) {
        Poll poll(session, *arguments);
        return arguments->once ? poll.once() : poll.follow();
    };
}
