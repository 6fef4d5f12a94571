#include "Output.h"

#include "Terminal.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* kProgram = "qvltag: ";

bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const auto written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

Output::Output(bool json)
    : mJson(json), mOpen(true), mOnTerminal(terminal::isThere()),
      mOut(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    // A reader that went away is noticed by the write; the signal would skip all cleaning up.
    std::signal(SIGPIPE, SIG_IGN);
}

void Output::put(const Json& object, std::string_view text) {
    if (mJson) return writeLine(object);
    plain(std::string(text) + "\n");
}

void Output::note(const std::string& text) {
    if (mJson) return writeLine({{"note", text}});
    eraseLine();
    writeAll(STDERR_FILENO, kProgram + text + "\n");
}

Outcome Output::error(const Problem& problem, const std::string& where) {
    if (mJson) {
        Json object{{"error", problem.name}};
        if (!problem.reason.empty()) object.add("reason", problem.reason);
        if (problem.status != 0) object.add("status", problem.status);
        if (!where.empty()) object.add("where", where);
        object.add("meaning", problem.meaning);
        if (!problem.advice.empty()) object.add("advice", problem.advice);
        writeLine(object);
        return problem.outcome;
    }
    eraseLine();
    std::string text = kProgram + (where.empty() ? where : where + ": ") + problem.name + ": " + problem.meaning;
    if (problem.status != 0) text += " (status " + std::to_string(problem.status) + ")";
    text += problem.advice.empty() ? ".\n" : ". " + problem.advice + "\n";
    writeAll(STDERR_FILENO, text);
    return problem.outcome;
}

void Output::line(const std::string& text) {
    if (!mOnTerminal || text == mLine) return;
    terminal::say(std::string(terminal::kEraseLine) + text);
    mLine = text;
}

void Output::eraseLine() {
    if (!mLine.empty()) terminal::say(terminal::kEraseLine);
    mLine.clear();
}

void Output::prompt(const std::string& text) {
    if (mOnTerminal) return line(text);
    if (mJson || std::exchange(mHasPrompted, true)) return;
    terminal::say(text + "\n");
}

void Output::plain(std::string_view text) {
    eraseLine();
    if (!mOpen || writeAll(mOut.get(), text)) return;
    mOpen = false;
    if (errno == EPIPE) return;  // whoever reads has seen enough
    const std::string reason = std::generic_category().message(errno);
    writeAll(STDERR_FILENO, kProgram + ("standard output cannot be written: " + reason) + "\n");
}

void Output::writeLine(const Json& object) { plain(object.text() + "\n"); }
