#include "TerminalEndpoint.h"

#include "EndpointServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

class TerminalEndpoint::Server : public EndpointServer {
  public:
    Server(std::shared_ptr<VirtualTamaReader> reader, std::string root, unsigned comNumber, std::uint32_t baudRate)
        : EndpointServer(std::move(reader)), mRoot(std::move(root)), mName("COM" + std::to_string(comNumber)),
          mByteTime(baudRate == 0 ? 0 : kBitsPerByte * 1'000'000'000LL / baudRate) {}
    ~Server() override { stop(); }

    const std::string& name() const { return mName; }
    std::string path() const { return mRoot + "/" + mName; }

  private:
    static constexpr long long kBitsPerByte = 10;
    static constexpr std::size_t kMaxInput = 4096;

    std::string reserve() override;
    void release() override { mReservation.release(); }
    std::string publish() override;
    void unpublish() override;
    void serve() override;

    std::string openPair();
    std::string makeLink();
    void takeLinkAway();
    void drain();
    void readHost();
    std::optional<Instant> deliverInput();
    std::optional<Instant> sendOutput(bool& blocked);

    const std::string mRoot;
    const std::string mName;
    const std::chrono::nanoseconds mByteTime;

    NameReservation mReservation;
    Descriptor mMaster;
    Descriptor mSlave;  ///< Kept open, so that the line survives a host that closes it.
    std::string mSlavePath;

    std::deque<std::uint8_t> mInput;  ///< Bytes of the host that are still on the line.
    Instant mInputDue;                ///< When the first of them has arrived.
    Instant mAnswersFrom;             ///< When the last byte that the reader has heard had arrived.
    Outgoing mOutput;
    std::size_t mSent = 0;  ///< Bytes of mOutput that have left.
    Instant mOutputDue;     ///< When the last byte has left the line.
};

std::string TerminalEndpoint::Server::reserve() {
    if (std::string wrong = makeDirectories(mRoot); !wrong.empty()) return wrong;
    return mReservation.reserve(path(), mRoot + "/." + mName);
}

std::string TerminalEndpoint::Server::publish() {
    if (std::string wrong = openPair(); !wrong.empty()) return wrong;
    mInput.clear();
    mOutput.bytes.clear();
    mSent = 0;
    mInputDue = mOutputDue = Clock::now();
    connectReader();
    std::string wrong = makeLink();
    if (!wrong.empty()) disconnectReader();
    return wrong;
}

std::string TerminalEndpoint::Server::openPair() {
    std::array<char, 128> name{};
    mMaster.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!mMaster.isOpen() || ::grantpt(mMaster.get()) != 0 || ::unlockpt(mMaster.get()) != 0 ||
        ::ptsname_r(mMaster.get(), name.data(), name.size()) != 0)
        return systemFailure(path(), "no pseudo-terminal can be had");
    ::fcntl(mMaster.get(), F_SETFL, O_NONBLOCK);
    mSlavePath = name.data();
    mSlave.reset(::open(mSlavePath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (!mSlave.isOpen() || ::tcgetattr(mSlave.get(), &settings) != 0)
        return systemFailure(mSlavePath, "the pseudo-terminal cannot be opened");
    ::cfmakeraw(&settings);  // Nothing may echo before a host has set the line up.
    ::tcsetattr(mSlave.get(), TCSANOW, &settings);
    return {};
}

/// The name appears in one step, and takes the place of a link that an earlier run left behind.
std::string TerminalEndpoint::Server::makeLink() {
    struct stat found {};
    if (::lstat(path().c_str(), &found) == 0 && !S_ISLNK(found.st_mode))
        return path() + ": something other than a link has this name; remove it or choose another number";
    if (::symlink(mSlavePath.c_str(), mReservation.fresh().c_str()) != 0 || !mReservation.publish())
        return systemFailure(path(), "the link cannot be made");
    return {};
}

void TerminalEndpoint::Server::takeLinkAway() {
    std::array<char, 128> target{};
    const auto length = ::readlink(path().c_str(), target.data(), target.size());
    if (length > 0 && mSlavePath == std::string(target.data(), static_cast<std::size_t>(length)))
        ::unlink(path().c_str());
}

void TerminalEndpoint::Server::unpublish() {
    takeLinkAway();
    drain();
    disconnectReader();
    mSlave.reset();
    mMaster.reset();
}

/// A hang-up throws away what the host has not read; what was sent before gets a moment.
void TerminalEndpoint::Server::drain() {
    constexpr int kRounds = 50;
    constexpr int kLeastRounds = 5;  // The system takes a moment to carry bytes to the other end.
    bool blocked = false;
    for (int round = 0; round < kRounds; ++round) {
        sendOutput(blocked);
        int unread = 0;
        const bool known = ::ioctl(mSlave.get(), FIONREAD, &unread) == 0;
        if (round >= kLeastRounds && mOutput.bytes.empty() && (!known || unread == 0)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void TerminalEndpoint::Server::serve() {
    bool blocked = false;
    const auto inputDue = deliverInput();
    auto deadline = sendOutput(blocked);
    if (inputDue && (!deadline || *inputDue < *deadline)) deadline = inputDue;
    const int reading = mInput.size() < kMaxInput ? POLLIN : 0;
    const int writing = blocked ? POLLOUT : 0;
    const auto seen = wait({{mMaster.get(), static_cast<short>(reading | writing), 0}}, deadline);
    if (seen[0] & POLLIN) readHost();
}

void TerminalEndpoint::Server::readHost() {
    std::array<std::uint8_t, kMaxInput> bytes;
    const auto count = ::read(mMaster.get(), bytes.data(), bytes.size());
    if (count <= 0) return;
    if (mInput.empty()) mInputDue = std::max(mInputDue, Clock::now()) + mByteTime;
    mInput.insert(mInput.end(), bytes.begin(), bytes.begin() + count);
}

/// Hands over the bytes whose line time is over. @return when the next one is due.
std::optional<TerminalEndpoint::Server::Instant> TerminalEndpoint::Server::deliverInput() {
    while (!mInput.empty()) {
        if (mInputDue > Clock::now()) return mInputDue;
        const std::uint8_t byte = mInput.front();
        mInput.pop_front();
        mAnswersFrom = mInputDue;
        if (!mInput.empty()) mInputDue += mByteTime;
        reader().receive({&byte, 1});
    }
    return std::nullopt;
}

/// Writes the bytes whose line time is over. @return when the next one is due; `blocked` if the line takes no more.
std::optional<TerminalEndpoint::Server::Instant> TerminalEndpoint::Server::sendOutput(bool& blocked) {
    for (;;) {
        if (mSent == mOutput.bytes.size()) {
            mOutput.bytes.clear();
            mSent = 0;
            std::optional<Instant> wakeAt;
            auto next = takeOutgoing(wakeAt);
            if (!next) return wakeAt;
            mOutput = std::move(*next);
            mOutputDue = std::max(mOutputDue, mOutput.delayed ? mOutput.readyAt : mAnswersFrom);
        }
        const Instant now = Clock::now();
        std::size_t due = mOutput.bytes.size() - mSent;
        if (mByteTime.count() != 0)
            due = std::min(due, static_cast<std::size_t>(std::max<long long>((now - mOutputDue) / mByteTime, 0)));
        if (due == 0) return mOutputDue + mByteTime;
        const auto written = ::write(mMaster.get(), mOutput.bytes.data() + mSent, due);
        if (written <= 0) {
            blocked = true;
            return std::nullopt;
        }
        mSent += static_cast<std::size_t>(written);
        mOutputDue += mByteTime * written;
    }
}

TerminalEndpoint::TerminalEndpoint(std::shared_ptr<VirtualTamaReader> reader, std::string root, unsigned comNumber,
                                   std::uint32_t baudRate)
    : mServer(std::make_unique<Server>(std::move(reader), std::move(root), comNumber, baudRate)) {}

TerminalEndpoint::~TerminalEndpoint() = default;

std::string TerminalEndpoint::start() { return mServer->start(); }

void TerminalEndpoint::stop() { mServer->stop(); }

std::string TerminalEndpoint::settle() { return mServer->settle(); }

std::string TerminalEndpoint::name() const { return mServer->name(); }

std::string TerminalEndpoint::path() const { return mServer->path(); }
