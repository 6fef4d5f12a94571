#include "Progress.h"

#include <utility>

namespace {

constexpr std::chrono::seconds kUntilShown{1};
constexpr int kBarWidth = 20;

std::string bar(int done, int total) {
    const auto filled = static_cast<std::size_t>(kBarWidth * done / total);
    std::string text(kBarWidth, '.');
    text.replace(0, filled, filled, '#');
    return text;
}

}  // namespace

Progress::Progress(Session& session, std::string what, int total)
    : mSession(session), mWhat(std::move(what)), mTotal(total) {}

Progress::~Progress() { mSession.output().eraseLine(); }

void Progress::begins(int index) {
    mSession.goOn();
    if (std::chrono::steady_clock::now() - mStart < kUntilShown) return;
    mSession.output().line("[" + bar(index, mTotal) + "] " + mWhat + " " + std::to_string(index + 1) + " of " +
                           std::to_string(mTotal) + ", hold the tag still, Ctrl-C cancels");
}
