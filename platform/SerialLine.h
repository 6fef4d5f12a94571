#pragma once

#include "IoResult.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace platform {

enum class Handshaking { off, hardware, software };

/// How a serial line is set. `stopBits` in the coding 0 = one, 1 = one and a half, 2 = two; `parity` 0 = none,
/// 1 = odd, 2 = even.
struct LineSettings {
    std::uint32_t baudRate;
    std::uint32_t dataBits;
    std::uint32_t parity;
    std::uint32_t stopBits;
};

/// Events of a line, as bits of a mask.
enum LineEvent : std::uint32_t {
    kLineByteArrived = 0x01,
    kLineEventCharacter = 0x02,
    kLineBreak = 0x40,
    kLineError = 0x80,
};

/// One serial line, raw: no character means anything. Operations without another result return 0 or the system's error
/// number.
///
/// What an implementation owes: opening never blocks, takes the line for itself and never becomes its controlling
/// terminal; any baud rate the driver of the line accepts can be set; read() takes what has arrived from the system
/// in as few calls as possible; a line that is gone is told apart from one that is silent; in a forked child the line
/// of its parent neither reads nor writes, and closing it there leaves the line as it is.
class SerialLine {
  public:
    SerialLine() = default;
    ~SerialLine();
    SerialLine(const SerialLine&) = delete;
    SerialLine& operator=(const SerialLine&) = delete;

    /// `name` is "COM<n>" or a path; see serialPortPath().
    int open(const char* name);
    bool isOpen() const { return mDescriptor >= 0; }
    /// Output that nobody has taken is dropped, so that closing never waits.
    void close();

    int apply(const LineSettings& settings);
    int settings(LineSettings& out) const;
    int setHandshaking(Handshaking mode);
    int handshaking(Handshaking& out) const;
    /// The character that raises kLineEventCharacter when it arrives.
    void setEventCharacter(std::uint8_t character) { mEventCharacter = character; }
    std::uint8_t eventCharacter() const { return mEventCharacter; }
    /// Drops what has arrived and what waits to be sent.
    int purge();

    /// Takes what is there, at most buffer.size() bytes. Does not wait: nothing there is `done` with count 0.
    IoResult read(std::span<std::uint8_t> buffer, std::size_t& count);
    /// Waits until a byte is there, at most about `ms` milliseconds. The wait ends on the byte.
    IoResult waitReadable(std::uint32_t ms);
    /// Writes all of `data` within `timeoutMs`.
    IoResult write(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs);
    /// Waits for one of the events in `mask`; `events` gets those that came.
    IoResult waitEvent(std::uint32_t mask, std::uint32_t& events, std::uint32_t timeoutMs);

    /// The system's error number of the last failure.
    int lastError() const { return mLastError; }

    /// True if read() has something without asking the system.
    bool hasBuffered() const { return mBufferStart != mBufferEnd; }
    /// Takes one byte without asking the system. @return false if none has been fetched.
    bool takeBuffered(std::uint8_t& byte) {
        if (!hasBuffered()) return false;
        byte = mBuffer[mBufferStart++];
        return true;
    }

  private:
    bool isInherited();
    IoResult fill(std::uint32_t waitMs);
    std::uint32_t takeEvents(std::uint32_t mask);

    int mDescriptor = -1;           // never blocks: settings, writing, looking
    int mWaitDescriptor = -1;       // the same line, whose reads wait for the first byte
    std::uint32_t mGeneration = 0;  // of the process that opened it
    int mLastError = 0;
    std::uint8_t mEventCharacter = 0;
    std::array<std::uint8_t, 512> mBuffer;
    std::size_t mBufferStart = 0;
    std::size_t mBufferEnd = 0;
    std::uint32_t mBreaks = 0;  // as the driver had counted them when they were last asked for
    std::uint32_t mErrors = 0;
};

}  // namespace platform
