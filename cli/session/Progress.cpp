#include "Progress.h"

#include <utility>

namespace {

constexpr std::chrono::seconds kUntilShown{1};
constexpr std::size_t kBarWidth = 20;

void appendBar(std::string& text, int done, int total) {
    const auto filled = kBarWidth * static_cast<std::size_t>(done) / static_cast<std::size_t>(total);
    text.append(filled, '#').append(kBarWidth - filled, '.');
}

}  // namespace

Progress::Progress(Session& session, std::string what, int total)
    : mSession(session), mWhat(std::move(what)), mTotal(total) {}

Progress::~Progress() { mSession.output().eraseLine(); }

void Progress::begins(int index) {
    mSession.goOn();
    if (std::chrono::steady_clock::now() - mStart < kUntilShown) return;
    std::string text = mWhat;
    text += ' ';
    appendBar(text, index, mTotal);
    text.append(" ").append(std::to_string(index + 1)).append(" of ").append(std::to_string(mTotal));
    mSession.output().line(text + ", hold the tag still, Ctrl-C cancels");
}
