#pragma once

#include "Descriptor.h"
#include "Outcome.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// A virtual reader: the program qvlreadersim as a child on a device root of its own, where the library then looks for
/// readers. Both go at the end; the child also ends when this process dies, since its input closes.
class ReaderProcess {
  public:
    ReaderProcess() = default;
    ~ReaderProcess() { end(); }
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;

    /// Starts it with these tags, as a reader of this model, both as qvlreadersim takes them, and points
    /// QVL_DEVICE_ROOT of this process to it: before the library is used and while nobody else looks at the
    /// environment. With `save`, images that change are written back at the end. @return what went wrong, if anything.
    std::optional<Problem> start(const std::vector<std::string>& images, const std::string& model, bool save);
    /// Remarks that it made on the images, a line each.
    const std::vector<std::string>& remarks() const { return mRemarks; }
    /// Ends it. @return what it complained about at its end; empty for nothing.
    std::string end();

  private:
    bool makeRoot();
    int spawn(std::vector<std::string> arguments);
    /// The next line that the child says; none at its end, or when it has nothing to say for some time.
    std::optional<std::string> readLine();
    int reap();

    std::string mRoot;
    pid_t mChild = -1;
    Descriptor mInput;   ///< Its standard input.
    Descriptor mSpeech;  ///< Its standard output and error.
    std::string mPending;
    std::vector<std::string> mRemarks;
};
