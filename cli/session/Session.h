#pragma once

#include "ConsolePrompt.h"
#include "Interrupt.h"
#include "Outcome.h"
#include "Output.h"
#include "QVLReaderServiceIntf.h"
#include "ReaderImpl.h"
#include "ReaderProcess.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What the options say that all commands share.
struct SessionSettings {
    std::vector<std::string> images;  ///< Tags of a virtual reader; none for a real one.
    std::string model = "tama";       ///< Of the virtual reader, as qvlreadersim names it.
    bool saveImages = false;
    bool wait = true;                   ///< Operations wait for a tag.
    std::optional<double> waitSeconds;  ///< How long; none for the value of the library's settings.
};

/// One reader in use, from its opening to its end: the virtual reader if one is wanted, the tag prompt, the adaptor.
/// What was done is undone at the end of its scope, in reverse.
class Session final : private QVLReaderServiceIntf {
  public:
    Session(SessionSettings settings, Output& output, Interrupt& interrupt);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Makes the reader ready, or says why not. Commands run in an open session only.
    Outcome open();
    /// The end, for those who want to know how it went.
    Outcome close();

    ReaderImpl& adaptor() { return *mAdaptor; }
    Output& output() { return mOutput; }
    Interrupt& interrupt() { return mInterrupt; }

    /// Complains about a status that is not success; see Output::error.
    Outcome fail(int status, const std::string& where = {});
    /// For those who keep a line of the terminal busy: the prompt says nothing until it is unmuted.
    void mutePrompt(bool on);
    /// Who hears, in the middle of an operation, that the reader was lost (false) or is back (true). By default that
    /// becomes a remark.
    void onReaderState(std::function<void(bool ready)> listener) { mListener = std::move(listener); }

  private:
    struct Stop {
        void operator()(ReaderImpl* adaptor) const;
    };

    void readerStateChanged(bool ready) override;
    void readerMessage(int code, const char* text) override;
    void setUpWaiting();

    const SessionSettings mSettings;
    Output& mOutput;
    Interrupt& mInterrupt;
    std::function<void(bool)> mListener;
    // In the order in which they come to life.
    std::optional<ReaderProcess> mReaderProcess;
    std::optional<ConsolePrompt> mPrompt;
    std::unique_ptr<ReaderImpl, Stop> mAdaptor;
};
