#include "SerialLine.h"

#include "Deadline.h"
#include "Descriptor.h"
#include "Devices.h"
#include "Process.h"

// The system's own terminal settings, which know any baud rate; <termios.h> declares the same names differently.
#include <asm/termbits.h>

#include <algorithm>
#include <chrono>
#include <linux/major.h>
#include <linux/serial.h>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <utility>

namespace platform {
namespace {

constexpr std::uint8_t kXon = 0x11;
constexpr std::uint8_t kXoff = 0x13;
constexpr tcflag_t kFlowControlInput = IXON | IXOFF;
constexpr std::uint32_t kLookMs = 100;        // one wait of the waiting descriptor
constexpr cc_t kLookTenths = kLookMs / 100;   // the same, in the unit of VTIME
constexpr std::uint32_t kRateTolerance = 20;  // a driver's rate may differ by a twentieth and still serve

struct Coding {
    std::uint32_t code;
    tcflag_t bits;
};
constexpr Coding kDataBits[] = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
constexpr Coding kParity[] = {{0, 0}, {1, PARENB | PARODD}, {2, PARENB}};
constexpr std::uint32_t kOneStopBit = 0, kOneAndAHalfStopBits = 1, kTwoStopBits = 2;
constexpr std::uint32_t kFewestDataBits = 5;

template <std::size_t N>
const Coding* findCode(const Coding (&table)[N], std::uint32_t code) {
    for (const Coding& entry : table)
        if (entry.code == code) return &entry;
    return nullptr;
}

template <std::size_t N>
std::uint32_t codeOf(const Coding (&table)[N], tcflag_t bits) {
    for (const Coding& entry : table)
        if (entry.bits == bits) return entry.code;
    return 0;
}

int getTerminal(int line, termios2& out) { return ::ioctl(line, TCGETS2, &out) == 0 ? 0 : errno; }
int setTerminal(int line, const termios2& settings) { return ::ioctl(line, TCSETS2, &settings) == 0 ? 0 : errno; }

// With five data bits a hardware makes one and a half stop bits where it makes two with more.
bool encode(const LineSettings& from, termios2& to) {
    const Coding* dataBits = findCode(kDataBits, from.dataBits);
    const Coding* parity = findCode(kParity, from.parity);
    const std::uint32_t longStop = from.dataBits == kFewestDataBits ? kOneAndAHalfStopBits : kTwoStopBits;
    if (from.baudRate == 0 || !dataBits || !parity) return false;
    if (from.stopBits != kOneStopBit && from.stopBits != longStop) return false;

    to.c_cflag &= ~tcflag_t{CBAUD | CIBAUD | CSIZE | PARENB | PARODD | CSTOPB};
    to.c_cflag |= BOTHER | dataBits->bits | parity->bits | (from.stopBits == kOneStopBit ? 0 : CSTOPB);
    to.c_ispeed = to.c_ospeed = from.baudRate;
    return true;
}

LineSettings decode(const termios2& from) {
    LineSettings out{from.c_ospeed, codeOf(kDataBits, from.c_cflag & CSIZE),
                     codeOf(kParity, from.c_cflag & (PARENB | PARODD)), kOneStopBit};
    if ((from.c_cflag & PARENB) == 0) out.parity = 0;
    if ((from.c_cflag & CSTOPB) != 0)
        out.stopBits = out.dataBits == kFewestDataBits ? kOneAndAHalfStopBits : kTwoStopBits;
    return out;
}

// Drivers take what they can and report success; whether it serves shows in what they then say they have.
bool serves(const LineSettings& wanted, const LineSettings& taken) {
    const std::uint32_t apart =
        wanted.baudRate > taken.baudRate ? wanted.baudRate - taken.baudRate : taken.baudRate - wanted.baudRate;
    return apart <= wanted.baudRate / kRateTolerance && wanted.dataBits == taken.dataBits &&
           wanted.parity == taken.parity && wanted.stopBits == taken.stopBits;
}

// Eight bits, no parity, one stop bit, no flow control, no modem lines. A break is an event and not a byte. A waiting
// read ends on the first byte or after kLookMs.
int makeRaw(int line) {
    termios2 settings{};
    if (const int error = getTerminal(line, settings); error != 0) return error;
    settings.c_iflag = IGNBRK;
    settings.c_oflag = 0;
    settings.c_lflag = 0;
    settings.c_cflag = (settings.c_cflag & (CBAUD | CIBAUD | HUPCL)) | CS8 | CREAD | CLOCAL;
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = kLookTenths;
    settings.c_cc[VSTART] = kXon;
    settings.c_cc[VSTOP] = kXoff;
    return setTerminal(line, settings);
}

// The mark for exclusive use stops every further open, but not root, which a lock stops. On a pseudo-terminal the mark
// would outlast a killed owner for as long as the other side lives, so there the lock must do.
int takeForItself(int line) {
    if (::flock(line, LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? EBUSY : errno;
    struct stat status;
    if (::fstat(line, &status) != 0) return errno;
    const unsigned kind = major(status.st_rdev);
    const bool isPseudoTerminal =
        kind >= UNIX98_PTY_SLAVE_MAJOR && kind < UNIX98_PTY_SLAVE_MAJOR + UNIX98_PTY_MAJOR_COUNT;
    return isPseudoTerminal || ::ioctl(line, TIOCEXCL) == 0 ? 0 : errno;
}

struct LineCounters {
    std::uint32_t breaks = 0;
    std::uint32_t errors = 0;
};

// All zero where the driver does not count.
LineCounters readCounters(int line) {
    serial_icounter_struct counted{};
    if (::ioctl(line, TIOCGICOUNT, &counted) != 0) return {};
    const int errors = counted.frame + counted.overrun + counted.parity + counted.buf_overrun;
    return {static_cast<std::uint32_t>(counted.brk), static_cast<std::uint32_t>(errors)};
}

}  // namespace

SerialLine::~SerialLine() { close(); }

int SerialLine::open(const char* name) {
    close();
    const std::string path = serialPortPath(name);
    const auto fail = [this](int error) { return mLastError = error; };

    Descriptor line = openAboveStandard(path.c_str(), O_RDWR | O_NONBLOCK);
    if (!line) return fail(errno);
    if (::isatty(line.get()) == 0) return fail(ENOTTY);
    // A descriptor has a waiting mode of its own only if it is opened anew.
    Descriptor waiting =
        openAboveStandard(("/proc/self/fd/" + std::to_string(line.get())).c_str(), O_RDONLY | O_NONBLOCK);
    if (!waiting || !makeBlocking(waiting.get())) return fail(errno);
    if (const int error = takeForItself(line.get()); error != 0) return fail(error);
    if (const int error = makeRaw(line.get()); error != 0) return fail(error);

    mDescriptor = line.release();
    mWaitDescriptor = waiting.release();
    mGeneration = processGeneration();
    mBufferStart = mBufferEnd = 0;
    const LineCounters counters = readCounters(mDescriptor);
    mBreaks = counters.breaks;
    mErrors = counters.errors;
    return 0;
}

void SerialLine::close() {
    if (isOpen() && !isInherited()) {
        ::ioctl(mDescriptor, TCFLSH, TCOFLUSH);
        ::ioctl(mDescriptor, TIOCNXCL);  // else the mark stays as long as anybody has the line open
    }
    const Descriptor waiting(std::exchange(mWaitDescriptor, -1));
    const Descriptor line(std::exchange(mDescriptor, -1));
}

// A forked child shares the line with the process that opened it, whose dialogue it would disturb.
bool SerialLine::isInherited() {
    if (mGeneration == processGeneration()) return false;
    mLastError = EBADF;
    return true;
}

int SerialLine::apply(const LineSettings& settings) {
    termios2 former{};
    if (const int error = getTerminal(mDescriptor, former); error != 0) return mLastError = error;
    termios2 wanted = former;
    if (!encode(settings, wanted)) return mLastError = EINVAL;
    if (const int error = setTerminal(mDescriptor, wanted); error != 0) return mLastError = error;

    LineSettings taken{};
    if (const int error = this->settings(taken); error != 0) return mLastError = error;
    if (serves(settings, taken)) return 0;
    setTerminal(mDescriptor, former);
    return mLastError = EINVAL;
}

int SerialLine::settings(LineSettings& out) const {
    termios2 current{};
    const int error = getTerminal(mDescriptor, current);
    if (error == 0) out = decode(current);
    return error;
}

int SerialLine::setHandshaking(Handshaking mode) {
    termios2 settings{};
    if (const int error = getTerminal(mDescriptor, settings); error != 0) return mLastError = error;
    settings.c_cflag &= ~tcflag_t{CRTSCTS};
    settings.c_iflag &= ~kFlowControlInput;
    if (mode == Handshaking::hardware) settings.c_cflag |= CRTSCTS;
    if (mode == Handshaking::software) settings.c_iflag |= kFlowControlInput;
    if (const int error = setTerminal(mDescriptor, settings); error != 0) return mLastError = error;
    if (mode != Handshaking::hardware) {
        // Opening raises both lines. A pseudo-terminal has none, so the result does not matter.
        const int lines = TIOCM_DTR | TIOCM_RTS;
        ::ioctl(mDescriptor, TIOCMBIC, &lines);
    }
    return 0;
}

int SerialLine::handshaking(Handshaking& out) const {
    termios2 settings{};
    if (const int error = getTerminal(mDescriptor, settings); error != 0) return error;
    const bool isSoftware = (settings.c_iflag & kFlowControlInput) == kFlowControlInput;
    out = (settings.c_cflag & CRTSCTS) != 0 ? Handshaking::hardware
          : isSoftware                      ? Handshaking::software
                                            : Handshaking::off;
    return 0;
}

int SerialLine::purge() {
    if (isInherited()) return mLastError;
    mBufferStart = mBufferEnd = 0;
    return ::ioctl(mDescriptor, TCFLSH, TCIOFLUSH) == 0 ? 0 : mLastError = errno;
}

// Adds to the buffer what has arrived, after a wait of at most `waitMs` (one kLookMs if that is more) for the first
// byte. `done` with nothing added is silence. A line that is gone gives end of file or an error.
IoResult SerialLine::fill(std::uint32_t waitMs) {
    if (isInherited()) return IoResult::failed;
    if (!hasBuffered()) mBufferStart = mBufferEnd = 0;
    std::copy(mBuffer.data() + mBufferStart, mBuffer.data() + mBufferEnd, mBuffer.data());
    mBufferEnd -= std::exchange(mBufferStart, 0);
    const std::size_t room = mBuffer.size() - mBufferEnd;
    if (room == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(waitMs, kLookMs)));
        return IoResult::done;
    }

    const bool readWaits = waitMs >= kLookMs;
    if (waitMs > 0 && !readWaits) waitUntilReady(mDescriptor, POLLIN, Deadline(waitMs));
    const int descriptor = readWaits ? mWaitDescriptor : mDescriptor;
    const ssize_t count = ::read(descriptor, mBuffer.data() + mBufferEnd, room);
    if (count > 0) {
        mBufferEnd += static_cast<std::size_t>(count);
        return IoResult::done;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return IoResult::done;
    const bool isSilent = count == 0 && readWaits && (readyNow(mDescriptor, POLLIN) & (POLLHUP | POLLERR)) == 0;
    if (isSilent) return IoResult::done;
    mLastError = count < 0 ? errno : EIO;
    return IoResult::failed;
}

IoResult SerialLine::read(std::span<std::uint8_t> buffer, std::size_t& count) {
    count = 0;
    if (isInherited()) return IoResult::failed;
    const auto take = [&] {
        const std::size_t taken = std::min(buffer.size() - count, mBufferEnd - mBufferStart);
        std::copy_n(mBuffer.data() + mBufferStart, taken, buffer.data() + count);
        mBufferStart += taken;
        count += taken;
    };
    take();
    if (count == buffer.size()) return IoResult::done;
    const IoResult result = fill(0);
    take();
    return count > 0 ? IoResult::done : result;
}

IoResult SerialLine::waitReadable(std::uint32_t ms) {
    const Deadline deadline(ms);
    for (std::uint32_t leftMs = ms; !hasBuffered(); leftMs = deadline.remainingMs()) {
        if (fill(leftMs) == IoResult::failed) return IoResult::failed;
        if (leftMs == 0 && !hasBuffered()) return IoResult::timedOut;
    }
    return IoResult::done;
}

IoResult SerialLine::write(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs) {
    count = 0;
    if (isInherited()) return IoResult::failed;
    const Deadline deadline(timeoutMs);
    while (count < data.size()) {
        const ssize_t written = ::write(mDescriptor, data.data() + count, data.size() - count);
        if (written > 0) {
            count += static_cast<std::size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        const bool isFull = written == 0 || errno == EAGAIN;
        const short ready = isFull ? waitUntilReady(mDescriptor, POLLOUT, deadline) : short{POLLERR};
        if (ready == 0) return IoResult::timedOut;
        if ((ready & POLLOUT) == 0 || (ready & (POLLHUP | POLLERR)) != 0) {
            mLastError = isFull ? EIO : errno;
            return IoResult::failed;
        }
    }
    return IoResult::done;
}

// What has come of the events in question, breaks and errors since the last time they were asked for.
std::uint32_t SerialLine::takeEvents(std::uint32_t mask) {
    std::uint32_t events = 0;
    const std::uint8_t* first = mBuffer.data() + mBufferStart;
    const std::uint8_t* last = mBuffer.data() + mBufferEnd;
    if (first != last) events |= kLineByteArrived;
    if (std::find(first, last, mEventCharacter) != last) events |= kLineEventCharacter;
    if ((mask & (kLineBreak | kLineError)) != 0) {
        const LineCounters counters = readCounters(mDescriptor);
        if (std::exchange(mBreaks, counters.breaks) != counters.breaks) events |= kLineBreak;
        if (std::exchange(mErrors, counters.errors) != counters.errors) events |= kLineError;
    }
    return events & mask;
}

IoResult SerialLine::waitEvent(std::uint32_t mask, std::uint32_t& events, std::uint32_t timeoutMs) {
    events = 0;
    const Deadline deadline(timeoutMs);
    for (std::uint32_t leftMs = 0;;) {
        const IoResult result = fill(leftMs);
        events = takeEvents(mask);
        if (events != 0) return IoResult::done;
        if (result == IoResult::failed) return IoResult::failed;
        leftMs = deadline.remainingMs();
        if (leftMs == 0) return IoResult::timedOut;
    }
}

}  // namespace platform
