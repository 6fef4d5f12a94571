// The prompt lives on a thread of its own beside the operation that is busy with the reader. What it needs of a host is
// a surface; the logic around it is the same without a window system.

#include "TagPrompt.h"

#include "Clock.h"
#include "CountedThreads.h"
#include "LogService.h"
#include "Process.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptControl.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

enum class PromptState { none, starting, up, closing };

// Everything about the one prompt of the process. Never destroyed: a prompt may outlive static objects.
struct Prompt {
    const std::uint32_t process = platform::processGeneration();
    std::mutex mutex;
    std::condition_variable changed;
    PromptState state = PromptState::none;
    TagPromptSurface* surface = nullptr;                       // what a host has put in
    const void* owner = nullptr;                               // who has started the prompt that stands
    unsigned generation = 0;                                   // counts prompts
    std::atomic<TagPromptSurface*> gTagPromptWindow{nullptr};  // what stands
    platform::ManualResetEvent gTagPromptEvent;
    platform::CountedThreads threads;

    void enter(PromptState next) {
        state = next;
        changed.notify_all();
    }
};

// A forked child begins with one of its own: the thread that would end its parent's prompt did not come along.
Prompt& prompt() {
    static std::atomic<Prompt*> instance{new Prompt};
    Prompt* current = instance;
    if (current->process == platform::processGeneration()) return *current;
    auto fresh = std::make_unique<Prompt>();
    return instance.compare_exchange_strong(current, fresh.get()) ? *fresh.release() : *current;
}

bool showSurface(TagPromptSurface& surface) noexcept {
    try {
        return surface.show();
    } catch (...) {
        return false;
    }
}

void hideSurface(TagPromptSurface& surface) noexcept {
    try {
        surface.hide();
    } catch (...) {
        QVL_LOG(kLogFailure, "The prompt failed to hide");
    }
}

void tagPromptThread(TagPromptSurface& surface) {
    Prompt& p = prompt();
    errno = 0;
    const bool shown = showSurface(surface);
    const int error = errno;
    std::unique_lock lock(p.mutex);
    if (!shown) {
        QVL_LOG(kLogFailure, "Create prompt window Failed with %d", error);
        p.enter(PromptState::none);
        return;
    }
    p.gTagPromptWindow = &surface;
    if (p.state == PromptState::starting) p.enter(PromptState::up);
    p.changed.wait(lock, [&p] { return p.state == PromptState::closing; });
    // First nothing stands any more, last the event: a wait loop that resets and looks in this order misses nothing.
    p.gTagPromptWindow = nullptr;
    lock.unlock();
    hideSurface(surface);
    p.gTagPromptEvent.set();
    lock.lock();
    p.enter(PromptState::none);
}

void askToClose(Prompt& p) {
    if (p.state == PromptState::starting || p.state == PromptState::up) p.enter(PromptState::closing);
}

// Another adaptor may put up the next one at once; only the one that stood here is waited for.
void closeAndWait(Prompt& p, std::unique_lock<std::mutex>& lock) {
    askToClose(p);
    const unsigned stood = p.generation;
    p.changed.wait(lock, [&p, stood] { return p.state == PromptState::none || p.generation != stood; });
}

}  // namespace

PromptStart startTagPrompt(const void* owner) {
    Prompt& p = prompt();
    std::unique_lock lock(p.mutex);
    // A prompt that is on its way out belongs to an operation that has ended: wait for it, it is prompt.
    p.changed.wait(lock, [&p] { return p.state != PromptState::closing; });
    if (p.state != PromptState::none) return PromptStart::standsAlready;
    TagPromptSurface* const surface = p.surface;
    if (surface == nullptr) return PromptStart::nobodyShows;
    p.state = PromptState::starting;
    p.owner = owner;
    ++p.generation;
    if (!p.threads.start([surface] { tagPromptThread(*surface); })) {
        p.enter(PromptState::none);
        return PromptStart::noThread;
    }
    p.changed.wait(lock, [&p] { return p.state != PromptState::starting; });
    return PromptStart::started;
}

void closeTagPrompt() {
    Prompt& p = prompt();
    const std::lock_guard lock(p.mutex);
    askToClose(p);
}

bool tagPromptStands() { return prompt().gTagPromptWindow.load() != nullptr; }

platform::ManualResetEvent& tagPromptEvent() { return prompt().gTagPromptEvent; }

void endTagPrompt(const void* owner) {
    Prompt& p = prompt();
    std::unique_lock lock(p.mutex);
    if (p.owner == owner) closeAndWait(p, lock);
}

void setTagPromptSurface(TagPromptSurface* surface) {
    Prompt& p = prompt();
    std::unique_lock lock(p.mutex);
    if (surface != nullptr && surface == p.surface) return;
    p.surface = surface;
    closeAndWait(p, lock);
    lock.unlock();
    if (surface == nullptr) p.threads.waitUntilNone();
}

void cancelTagPrompt() { closeTagPrompt(); }

bool QvlMf500ReaderImpl::showTagPrompt() {
    if (!mTagPrompt) return true;
    switch (startTagPrompt(this)) {
    case PromptStart::standsAlready:
    case PromptStart::noThread:
        return false;
    case PromptStart::nobodyShows:
    case PromptStart::started:
        break;
    }
    return true;
}
