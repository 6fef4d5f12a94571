#pragma once

#include <unistd.h>
#include <utility>

/// A descriptor that closes itself.
class Descriptor {
  public:
    explicit Descriptor(int number = -1) : mNumber(number) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : mNumber(std::exchange(other.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(std::exchange(other.mNumber, -1));
        return *this;
    }

    int get() const { return mNumber; }
    bool isOpen() const { return mNumber >= 0; }
    void reset(int number = -1) {
        if (mNumber >= 0) ::close(mNumber);
        mNumber = number;
    }

  private:
    int mNumber;
};
