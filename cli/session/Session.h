#pragma once

#include "Interrupt.h"
#include "Outcome.h"
#include "Output.h"
#include "qvl.h"
#include "qvl_virtual.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// What the options say that all commands share.
struct SessionSettings {
    std::vector<std::string> images;  ///< Tags of a virtual reader; none for a real one.
    std::string model = "tama";       ///< Of the virtual reader, as qvlreadersim names it.
    bool saveImages = false;
    bool wait = true;                       ///< Operations wait for a tag.
    double waitSeconds = 30;                ///< How long each of them does.
    std::optional<double> deadlineSeconds;  ///< For the whole command.
    double readerSeconds = 1;               ///< How long to wait for a reader.
};

/// One reader in use, from its opening to its end, and before it the virtual reader if one is wanted. What was done is
/// undone at the end of its scope, in reverse.
class Session {
  public:
    Session(SessionSettings settings, Output& output, Interrupt& interrupt);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Makes the reader ready. Commands run in an open session only. @throws qvl::Error, or Problem if the virtual
    /// reader cannot be made.
    void open();
    /// The end, for those who want to know how it went.
    Outcome close();

    qvl::Reader& reader() { return *mReader; }
    Output& output() { return mOutput; }
    Interrupt& interrupt() { return mInterrupt; }

    /// How long an operation that begins now may wait. While it waits, a line asks for a tag; Ctrl-C ends the wait.
    qvl::Limit limit();
    /// The same with a time of its own, none for no end but the deadline of the command, and another line or none.
    qvl::Limit limit(std::optional<std::chrono::milliseconds> time, const char* prompt);
    /// @throws qvl::Error if the user wants to end or the deadline is over: between the steps of long work.
    void goOn();

    /// Complains about what was thrown, with advice; see Output::error.
    Outcome fail(const qvl::Error& error, const std::string& where = {});

  private:
    void startVirtualReader(const qvl::VirtualReader::Options& options);

    std::chrono::milliseconds patience() const;

    const SessionSettings mSettings;
    Output& mOutput;
    Interrupt& mInterrupt;
    const qvl::Limit::Clock::time_point mDeadline;
    // In the order in which they come to life.
    std::optional<qvl::VirtualReader> mVirtualReader;
    std::optional<qvl::Reader> mReader;
};
