#pragma once

#include "ReaderImpl.h"

/// What an operation of the library hands out, and what goes back to it at the end.
template <typename T>
class FromLibrary {
  public:
    explicit FromLibrary(ReaderImpl& adaptor) : mAdaptor(adaptor) {}
    ~FromLibrary() { mAdaptor.freeMemory(mPointer); }
    FromLibrary(const FromLibrary&) = delete;
    FromLibrary& operator=(const FromLibrary&) = delete;

    /// Where the operation puts it.
    T*& out() { return mPointer; }
    T* get() const { return mPointer; }

  private:
    ReaderImpl& mAdaptor;
    T* mPointer = nullptr;
};
