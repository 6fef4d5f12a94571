#include "InputLines.h"

#include "Terminal.h"

#include <array>
#include <cerrno>
#include <cstdio>

#include <histedit.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int kLookForRequestMs = 100;

/// Waits for something to read. @return false when the end was requested.
bool waitForInput(const Interrupt& interrupt) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (!interrupt.requested())
        if (::poll(&input, 1, kLookForRequestMs) > 0) return true;
    return false;
}

/// Like read, but ends at a request.
ssize_t readInput(const Interrupt& interrupt, char* buffer, std::size_t size) {
    while (waitForInput(interrupt)) {
        const ssize_t count = ::read(STDIN_FILENO, buffer, size);
        if (count >= 0 || errno != EINTR) return count;
    }
    return 0;
}

class PlainLines : public InputLines {
  public:
    PlainLines(const Interrupt& interrupt, std::size_t longest) : mInterrupt(interrupt), mLongest(longest) {}

    std::optional<std::string> next() override {
        for (;;) {
            const std::size_t end = mPending.find('\n');
            if (end != std::string::npos || mPending.size() > mLongest) return take(end);
            std::array<char, 4096> buffer;
            const ssize_t count = readInput(mInterrupt, buffer.data(), buffer.size());
            if (count > 0) {
                mPending.append(buffer.data(), static_cast<std::size_t>(count));
                continue;
            }
            if (mPending.empty() || mInterrupt.requested()) return std::nullopt;
            return take(std::string::npos);
        }
    }

  private:
    std::string take(std::size_t end) {
        std::string line = mPending.substr(0, end);
        mPending.erase(0, end == std::string::npos ? end : end + 1);
        return line;
    }

    const Interrupt& mInterrupt;
    const std::size_t mLongest;
    std::string mPending;
};

class EditedLines : public InputLines {
  public:
    EditedLines(const Interrupt& interrupt, const char* prompt)
        : mInterrupt(interrupt), mPrompt(prompt), mHistory(::history_init()),
          mEditor(::el_init("qvltag", stdin, stderr, stderr)) {
        if (!mEditor || !mHistory) return;
        constexpr int kRemembered = 200;
        HistEvent event{};
        ::history(mHistory.get(), &event, H_SETSIZE, kRemembered);
        ::history(mHistory.get(), &event, H_SETUNIQUE, 1);
        ::el_set(mEditor.get(), EL_CLIENTDATA, this);
        ::el_set(mEditor.get(), EL_PROMPT, promptOf);
        ::el_set(mEditor.get(), EL_EDITOR, "emacs");
        ::el_set(mEditor.get(), EL_HIST, ::history, mHistory.get());
        ::el_set(mEditor.get(), EL_GETCFN, readKey);
        ::el_source(mEditor.get(), nullptr);
    }
    bool isSound() const { return mEditor && mHistory; }

    bool isInteractive() const override { return true; }
    std::optional<std::string> next() override {
        int length = 0;
        const char* text = ::el_gets(mEditor.get(), &length);
        if (!text || length <= 0 || mInterrupt.requested()) {
            terminal::say("\n");
            return std::nullopt;
        }
        std::string line(text, static_cast<std::size_t>(length));
        if (line.ends_with('\n')) line.pop_back();
        HistEvent event{};
        if (!line.empty()) ::history(mHistory.get(), &event, H_ENTER, line.c_str());
        return line;
    }

  private:
    struct End {
        void operator()(EditLine* editor) const { ::el_end(editor); }
        void operator()(History* history) const { ::history_end(history); }
    };

    static EditedLines& self(EditLine* editor) {
        void* data = nullptr;
        ::el_get(editor, EL_CLIENTDATA, &data);
        return *static_cast<EditedLines*>(data);
    }
    static char* promptOf(EditLine* editor) { return self(editor).mPrompt.data(); }
    /// As the editor would do it, which knows nothing of requests. Commands are ASCII: a key is a byte.
    static int readKey(EditLine* editor, wchar_t* key) {
        char byte = 0;
        const ssize_t count = readInput(self(editor).mInterrupt, &byte, 1);
        *key = static_cast<unsigned char>(byte);
        return static_cast<int>(count);
    }

    const Interrupt& mInterrupt;
    std::string mPrompt;
    std::unique_ptr<History, End> mHistory;
    std::unique_ptr<EditLine, End> mEditor;
};

}  // namespace

std::unique_ptr<InputLines> openInputLines(const Interrupt& interrupt, const char* prompt, std::size_t longest) {
    if (::isatty(STDIN_FILENO) == 1 && terminal::isThere())
        if (auto edited = std::make_unique<EditedLines>(interrupt, prompt); edited->isSound()) return edited;
    return std::make_unique<PlainLines>(interrupt, longest);
}
