#pragma once

#include <algorithm>

/// What one operation of the service sees of the link to its reader. The driver reports each exchange and asks before
/// it sends; the operation asks whether there is any use in waiting. Reached through the driver only, under its lock.
class LinkWatch {
  public:
    /// False once the reader has been silent so often: each further command would cost a whole time-out.
    bool mayAsk() const { return mInARow < kMostInARow && mInAll < kMostInAll; }
    /// The reader is gone or silent; nothing more will come in this operation.
    bool isLost() const { return mIsGone || !mayAsk(); }
    /// The last exchange failed on the link: what the reader did with the command is unknown.
    bool isBroken() const { return mIsBroken; }

    void answered() {
        mInARow = 0;
        mIsBroken = false;
    }
    void timedOut() {
        ++mInARow;
        ++mInAll;
        mIsBroken = true;
    }
    void failed(bool isGone) {
        mIsBroken = true;
        mIsGone = mIsGone || isGone;
    }
    /// A reader that was opened anew gets one more chance to answer.
    void opened() {
        mInARow = std::min(mInARow, kMostInARow - 1);
        mIsGone = mIsBroken = false;
    }

  private:
    static constexpr int kMostInARow = 3, kMostInAll = 4;

    int mInARow = 0, mInAll = 0;  // time-outs
    bool mIsGone = false;
    bool mIsBroken = false;
};
