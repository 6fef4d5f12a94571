#include "Session.h"

#include "ServiceStatus.h"
#include "StatusText.h"
#include "Text.h"

#include <cstdint>

Session::Session(SessionSettings settings, Output& output, Interrupt& interrupt)
    : mSettings(std::move(settings)), mOutput(output), mInterrupt(interrupt),
      mListener([this](bool ready) { mOutput.note(ready ? "the reader is back" : "the reader was lost"); }) {}

Outcome Session::open() {
    if (!mSettings.images.empty()) {
        const auto problem = mReaderProcess.emplace().start(mSettings.images, mSettings.model, mSettings.saveImages);
        if (problem) return mOutput.error(*problem);
        for (const std::string& remark : mReaderProcess->remarks())
            mOutput.note(remark);
    }
    mAdaptor.reset(createAdaptorInstance(this));
    if (!mAdaptor) return fail(kReaderFailed);
    mAdaptor->loadReaderConfig();
    setUpWaiting();
    return mAdaptor->initReader() ? Outcome::done : fail(kReaderNotReady);
}

void Session::setUpWaiting() {
    if (!mSettings.wait) return mAdaptor->setTagPromptFlag(false);
    mPrompt.emplace(mInterrupt, mOutput.isJson());
    if (!mSettings.waitSeconds) return;
    mAdaptor->setTagPromptFlag(true);
    mAdaptor->resetSuspendTime(static_cast<std::uint32_t>(fromSeconds(*mSettings.waitSeconds).count()));
}

Outcome Session::close() {
    mAdaptor.reset();
    mPrompt.reset();
    const std::string complaint = mReaderProcess ? mReaderProcess->end() : std::string();
    if (complaint.empty()) return Outcome::done;
    return mOutput.error({Outcome::failed, "virtual reader", complaint, "", 0});
}

Outcome Session::fail(int status, const std::string& where) {
    Problem problem = problemOf(status);
    if (status == kCancelled && !mSettings.wait && !mInterrupt.requested()) {
        // Nobody waited, and so nobody cancelled.
        problem = problemOf(kNoTag);
        problem.status = status;
    }
    return mOutput.error(problem, where);
}

void Session::mutePrompt(bool on) {
    if (mPrompt) mPrompt->mute(on);
}

void Session::Stop::operator()(ReaderImpl* adaptor) const {
    adaptor->stopReader();
    delete adaptor;
}

void Session::readerStateChanged(bool ready) { mListener(ready); }

void Session::readerMessage(int, const char* text) { mOutput.note(text); }
