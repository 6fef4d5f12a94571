#pragma once

#include "QvlExport.h"

#include <cstdint>

/// How the operations of one thread wait, if the host decides that itself: for a tag or a card, and for the reader
/// while somebody else works with it. It takes the place of the prompt (TagPrompt.h), of the waiting time of the
/// settings and of resetSuspendTime. The host keeps the object.
class QVL_API HostWait {
  public:
    virtual ~HostWait() = default;

    /// Called on the thread of the operation, which holds the reader lock, between two attempts at a tag. Lets at most
    /// `ms` pass, none for 0. Does not call the adaptor and does not throw.
    /// @return false if the operation has to give up, with 3121 or with what it has done so far.
    virtual bool waitForTag(std::uint32_t ms) = 0;
    /// The same while another thread or process holds the reader lock. `holder` is the process id, 0 if it is not
    /// known.
    /// @return false if the operation has to give up; it has done nothing then, and gives 3101.
    virtual bool waitForReader(std::uint32_t ms, long holder) = 0;
    /// Called before a serial port, such as "COM1", is opened to see whether a reader answers there, which can take
    /// four time-outs of the line. `isNamed`: the settings or the device root name the port; else it is a guess.
    /// @return false to leave the port alone.
    virtual bool mayTryPort(const char* port, bool isNamed) {
        static_cast<void>(port);
        return isNamed;
    }
};

/// Puts `wait` in place for the operations that this thread starts, on any adaptor; null takes it out again.
QVL_API void setHostWait(HostWait* wait);
/// What is in place for this thread, or null.
QVL_API HostWait* hostWait();
