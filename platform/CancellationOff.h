#pragma once

namespace platform {

/// Cancelling the calling thread waits until the end of this scope; then it is as before. Scopes nest. Construct and
/// destroy on the same thread.
class CancellationOff {
  public:
    CancellationOff() noexcept;
    ~CancellationOff();
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

  private:
    int mFormer = 0;
};

}  // namespace platform
