#pragma once

#include "Session.h"

#include <string>

/// Says how far a long work is, in a line on a terminal that goes away with it; elsewhere nothing. The tag prompt,
/// which would come and go with every step, gives way to it.
class Progress {
  public:
    /// `what` as in "Reading sector".
    Progress(Session& session, std::string what, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Work on number `index`, from 0, begins. @return false once the user wants to end.
    bool begins(int index);

  private:
    Session& mSession;
    const std::string mWhat;
    const int mTotal;
    const bool mOnTerminal;
};
