#include "EndpointServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBabbleChunk = 64;
constexpr std::size_t kMaxDescriptors = 4;

}  // namespace

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

void Descriptor::reset(int number) {
    if (mNumber >= 0) ::close(mNumber);
    mNumber = number;
}

std::string systemFailure(const std::string& path, const char* what) {
    return path + ": " + what + ": " + std::generic_category().message(errno);
}

std::string makeDirectories(const std::string& path) {
    std::error_code problem;
    std::filesystem::create_directories(path, problem);
    return problem ? path + ": the directory cannot be made: " + problem.message() : std::string();
}

// The lock is on the directory. Its holder removes it at the end, so what was locked must still be what has the name.
std::string NameReservation::reserve(const std::string& published, const std::string& hidden) {
    mPublished = published;
    mHidden = hidden;
    for (;;) {
        if (::mkdir(mHidden.c_str(), S_IRWXU) != 0 && errno != EEXIST) break;
        mDirectory.reset(::open(mHidden.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!mDirectory.isOpen() && errno == ENOENT) continue;
        if (!mDirectory.isOpen()) break;
        if (::flock(mDirectory.get(), LOCK_EX | LOCK_NB) != 0) {
            mDirectory.reset();
            return published + ": another simulator serves this name; end it or choose another name";
        }
        struct stat locked {
        }, named{};
        ::fstat(mDirectory.get(), &locked);
        if (::lstat(mHidden.c_str(), &named) == 0 && isSameFile(locked, named)) return {};
    }
    return systemFailure(mHidden, "the name cannot be reserved");
}

void NameReservation::release() {
    if (!mDirectory.isOpen()) return;
    ::unlink(place().c_str());
    ::rmdir(mHidden.c_str());
    mDirectory.reset();
}

std::string NameReservation::fresh() const {
    ::unlink(place().c_str());
    return place();
}

std::string NameReservation::shortFresh() const { return "/proc/self/fd/" + std::to_string(mDirectory.get()) + "/new"; }

bool NameReservation::publish() const { return ::rename(place().c_str(), mPublished.c_str()) == 0; }

EndpointServer::EndpointServer(std::shared_ptr<VirtualReader> reader)
    : mReader(std::move(reader)), mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EndpointServer::~EndpointServer() = default;

std::string EndpointServer::start() {
    if (mThread.joinable()) return "already started";
    if (std::string wrong = reserve(); !wrong.empty()) return wrong;
    mPresent = mReader->isPresent();
    if (mPresent)
        if (std::string wrong = publish(); !wrong.empty()) {
            release();
            return wrong;
        }
    mPublished = mPresent;
    mStopping = mVanished = false;
    mReader->watch(*this);
    mThread = std::thread([this] { run(); });
    return {};
}

void EndpointServer::stop() {
    if (!mThread.joinable()) return;
    {
        const std::lock_guard held(mMutex);
        mStopping = true;
    }
    wake();
    mThread.join();
    mReader->unwatch(*this);
    if (std::exchange(mPublished, false)) unpublish();
    release();
}

std::string EndpointServer::settle() {
    if (!mThread.joinable()) return {};
    std::unique_lock held(mMutex);
    mSettled.wait(held, [this, news = mNews] { return mFollowed >= news; });
    return mProblem;
}

void EndpointServer::run() {
    ::prctl(PR_SET_TIMERSLACK, 1000UL);  // Nanoseconds: pacing needs a finer alarm than the default.
    for (;;) {
        {
            const std::lock_guard held(mMutex);
            if (mStopping) return;
        }
        if (follow())
            serve();
        else
            wait({}, std::nullopt);
    }
}

bool EndpointServer::follow() {
    bool vanished, present;
    std::uint64_t news;
    {
        const std::lock_guard held(mMutex);
        vanished = std::exchange(mVanished, false);
        present = mPresent;
        news = mNews;
    }
    std::string problem;
    if (vanished && std::exchange(mPublished, false)) unpublish();
    if (present && !mPublished) {
        problem = publish();
        mPublished = problem.empty();
    }
    const std::lock_guard held(mMutex);
    mProblem = std::move(problem);
    if (std::exchange(mFollowed, news) != news) mSettled.notify_all();
    return mPublished;
}

void EndpointServer::connectReader() {
    forget();
    mReader->connect(this);
}

void EndpointServer::disconnectReader() {
    mReader->connect(nullptr);
    forget();
}

void EndpointServer::forget() {
    const std::lock_guard held(mMutex);
    mQueue.clear();
    mBabbling = false;
}

void EndpointServer::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(mWake.get(), &one, sizeof one);
}

void EndpointServer::clearWake() {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = ::read(mWake.get(), &count, sizeof count);
}

std::optional<EndpointServer::Outgoing> EndpointServer::takeOutgoing(std::optional<Instant>& wakeAt) {
    const std::lock_guard held(mMutex);
    const Instant now = Clock::now();
    if (mQueue.empty() && mBabbling) {
        Outgoing chunk{std::vector<std::uint8_t>(kBabbleChunk), mBabbleSince};
        for (std::uint8_t& byte : chunk.bytes)
            byte = babbleByte(mBabblePosition++);
        return chunk;
    }
    if (mQueue.empty()) return std::nullopt;
    if (mQueue.front().readyAt > now) {
        wakeAt = mQueue.front().readyAt;
        return std::nullopt;
    }
    Outgoing next = std::move(mQueue.front());
    mQueue.pop_front();
    return next;
}

std::vector<short> EndpointServer::wait(std::initializer_list<pollfd> descriptors, std::optional<Instant> deadline) {
    std::array<pollfd, kMaxDescriptors> all{{{mWake.get(), POLLIN, 0}}};
    std::copy(descriptors.begin(), descriptors.end(), all.begin() + 1);
    timespec left{};
    if (deadline) {
        const auto rest = std::max(*deadline - Clock::now(), Clock::duration::zero());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
        left.tv_sec = seconds.count();
        left.tv_nsec = static_cast<long>(std::chrono::nanoseconds(rest - seconds).count());
    }
    const int ready = ::ppoll(all.data(), descriptors.size() + 1, deadline ? &left : nullptr, nullptr);
    std::vector<short> seen(descriptors.size());
    if (ready <= 0) return seen;
    if (all[0].revents != 0) clearWake();
    for (std::size_t i = 0; i < seen.size(); ++i)
        seen[i] = all[i + 1].revents;
    return seen;
}

void EndpointServer::onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) {
    {
        const std::lock_guard held(mMutex);
        const Instant readyAt = Clock::now() + std::chrono::milliseconds(delayMs);
        mQueue.push_back({{frame.begin(), frame.end()}, readyAt, delayMs != 0});
    }
    wake();
}

void EndpointServer::onBabble() {
    {
        const std::lock_guard held(mMutex);
        mBabbling = true;
        mBabblePosition = 0;
        mBabbleSince = Clock::now();
    }
    wake();
}

void EndpointServer::onQuiet() {
    const std::lock_guard held(mMutex);
    mBabbling = false;
}

void EndpointServer::onVanished() {
    {
        const std::lock_guard held(mMutex);
        mVanished = true;
        ++mNews;
        mPresent = mBabbling = false;
    }
    wake();
}

void EndpointServer::onReturned() {
    {
        const std::lock_guard held(mMutex);
        mPresent = true;
        ++mNews;
    }
    wake();
}
