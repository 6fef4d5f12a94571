#pragma once

#include "Session.h"

#include <chrono>
#include <string>

/// Shows how far long work is, as a bar on a terminal that goes away with it, once it has taken a second; nothing
/// elsewhere.
class Progress {
  public:
    /// `what` as in "Reading sector".
    Progress(Session& session, std::string what, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Work on number `index`, from 0, begins. @throws qvl::Error once the user wants to end or the deadline is over.
    void begins(int index);

  private:
    Session& mSession;
    const std::string mWhat;
    const int mTotal;
    const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
};
