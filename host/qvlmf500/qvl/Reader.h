#pragma once

#include "Card.h"
#include "Limit.h"
#include "Session.h"
#include "Tag.h"
#include "Watch.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvl {

/// What a reader tells of itself.
struct Identity {
    std::string adaptor;   ///< Name of the library's adaptor.
    std::string model;     ///< "PN531", "MF RC500", or empty.
    std::string firmware;  ///< Text of the reader.
    Bytes id;              ///< Serial number: 6 bytes of a PN531, 4 of an MF RC500.
    std::string device;    ///< Instance id of its device; empty if it is not known.
};

/// Which applications a search looks for, and the key that opens sector 0 of the tags.
struct ApplicationQuery {
    std::uint16_t id;
    Login directory{Key::directory()};
};

/// The reader, open from the constructor to close() or the end of the object. Tags, cards and watches that it gave may
/// outlive it: their operations then throw Error (noReader). Any thread may use it; operations queue.
class Reader {
  public:
    /// Opens the reader that is attached, waiting for one up to the limit. There is at least one attempt.
    ///
    /// A serial port is tried only if the settings or the device root name it, for a silent one costs up to 16 s.
    /// `mayTryPort`, if given, is asked before each such attempt, here and when a lost reader is looked for, with the
    /// name of the port ("COM1") and whether it is named; it may say no, or allow a port that is only a guess.
    /// @throws Error: noReader, with where it was looked for; readerBusy; cancelled.
    explicit Reader(const Limit& limit = Limit(std::chrono::seconds(1)).withPatience(std::chrono::seconds(30)),
                    std::function<bool(const std::string& port, bool isNamed)> mayTryPort = {})
        : mSession(std::make_shared<detail::Session>(std::move(mayTryPort))) {
        detail::Call call(mSession, limit);
        constexpr std::uint32_t kBetweenAttemptsMs = 200;
        constexpr int kStartAnew = 0;
        while (!call.library().initReader()) {
            call.throwEnd(kReaderNotReady);
            if (!call.pause(kBetweenAttemptsMs)) {
                call.throwEnd(kReaderNotReady);
                throw Error(Reason::noReader, kReaderNotReady, "no reader was found in " + placesOf(*mSession));
            }
            call.library().scanUSBDevice(kStartAnew);
        }
        mSession->isOpened();
    }
    Reader(Reader&&) noexcept = default;
    Reader& operator=(Reader&& other) noexcept {
        if (this == &other) return *this;
        close();
        mSession = std::move(other.mSession);
        return *this;
    }
    ~Reader() { close(); }

    /// Turns the field off and gives the reader back. Waits of other threads end with Error (noReader). Not from a
    /// question that a Limit asks.
    void close() {
        if (mSession) mSession->close();
    }

    Identity identity(const Limit& limit = Limit(kUsualWait)) const {
        constexpr std::size_t kPn531Id = 6, kMfRc500Id = 4;
        detail::Call call(mSession, limit);
        std::array<std::uint8_t, 256> id{}, version{};
        std::uint16_t idLength = 0, versionLength = 0;
        if (const int status = call.library().getReaderFwVersion(version.data(), versionLength); status != kOk)
            call.fail(status, "firmware version");
        if (const int status = call.library().getReaderId(id.data(), idLength); status != kOk)
            call.fail(status, "reader id");
        const char* device = call.library().getDeviceInstanceID();
        return {call.library().getAdaptorName(),
                idLength == kPn531Id     ? "PN531"
                : idLength == kMfRc500Id ? "MF RC500"
                                         : "",
                std::string(version.begin(), std::find(version.begin(), version.end(), std::uint8_t{0})),
                Bytes(id.begin(), id.begin() + std::min<std::ptrdiff_t>(idLength, id.size())), device ? device : ""};
    }
    /// Lights 0 to 2 go on for `duration`, 0 to 31 of the reader's own steps; light 3 is a switch. A reader without
    /// lights does nothing.
    void setLight(int light, bool on, int duration = 1, const Limit& limit = Limit(kUsualWait)) const {
        constexpr int kLastLight = 3, kLongest = 31;
        if (light < 0 || light > kLastLight || duration < 0 || duration > kLongest)
            throw Error(Reason::badArgument, "there are lights 0 to 3 and durations 0 to 31");
        detail::Call call(mSession, limit);
        const int status = call.library().switchReaderLED(
            static_cast<std::uint8_t>(light), static_cast<std::uint8_t>(on), static_cast<std::uint8_t>(duration));
        if (status != kOk) call.fail(status, "light " + std::to_string(light));
    }
    /// Sends a command to a PN531 as it is, its code first. @return the reply, its code first. Frame and link are taken
    /// care of. @throws Error (notSupported) for another reader.
    Bytes relay(ByteView command, const Limit& limit = Limit(kUsualWait)) const {
        constexpr int kRelay = 46;
        detail::Call call(mSession, limit);
        QVLParamCollection in;
        if (in.addBytes(static_cast<std::uint32_t>(command.size()), command.data()) != kMemoryOk)
            call.fail(kStreamFull);
        in.rewind();
        detail::FromLibrary<QVLParamCollection> out(call.library());
        if (const int status = call.library().runCommand(kRelay, in, out.out()); status != kOk) call.fail(status);
        out.get()->rewind();
        std::uint32_t length = 0;
        std::uint8_t* data = nullptr;
        out.get()->getBytes(length, data);
        const std::unique_ptr<std::uint8_t[]> owner(data);
        return {data, data + (data ? length : 0)};
    }

    /// The tags and cards that are in the field now, perhaps none.
    std::vector<Tag> tags(const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        std::vector<Tag> tags;
        for (const detail::Seen& each : lookOrThrow(call))
            tags.push_back(Tag(mSession, each));
        return tags;
    }
    /// Waits for a tag or card, whichever comes. @throws Error: timedOut, cancelled, noReader, readerLost, readerBusy.
    Tag waitForTag(const Limit& limit = {}) const {
        return waitFor(limit, "no tag came", [](detail::Call&, const detail::Seen&) { return true; });
    }
    /// Waits for the tag with this UID, even if others are in the field.
    Tag waitForTag(const Uid& uid, const Limit& limit = {}) const {
        return waitFor(limit, "the tag " + uid.text() + " did not come",
                       [&uid](detail::Call&, const detail::Seen& seen) { return seen.uid == uid; });
    }
    /// Waits for a tag whose directory has this application, even if others are in the field.
    Tag waitForTag(const ApplicationQuery& query, const Limit& limit = {}) const {
        return waitFor(limit, "no tag with the application came",
                       [&query](detail::Call& call, const detail::Seen& seen) { return carries(call, seen, query); });
    }
    /// Events of tags and of the reader, for as long as the limit says. Tags that are in the field already arrive
    /// first.
    Watch watch(const Limit& limit = {}) const { return {mSession, limit}; }

    /// Waits for a smart card (ISO/IEC 14443-4) and opens a session with it, even if storage tags are in the field. On
    /// an MF RC500 several can be open at once: a further one is looked for among those that were in the field before
    /// the first session, since a new look would end that. A PN531 holds one at a time; another is Error
    /// (notSupported).
    Card waitForCard(const Limit& limit = {}) const { return waitForCard(Uid(), limit); }
    /// The same for the card with this UID; an empty one stands for any.
    Card waitForCard(const Uid& uid, const Limit& limit = {}) const {
        detail::Call call(mSession, limit);
        for (bool isThere = false;;) {
            const auto open = mSession->openCards();
            const auto seen = open.empty() ? detail::listField(call) : mSession->lastSeen();
            isThere = isThere || seen.has_value();
            for (const detail::Seen& each : seen.value_or(std::vector<detail::Seen>())) {
                const bool isWanted = uid.empty() ? mayBeCard(each) : each.uid == uid;
                if (!isWanted || std::ranges::find(open, each.uid) != open.end()) continue;
                if (auto card = openCard(call, each)) return std::move(*card);
            }
            pauseOrThrow(call, isThere && !call.readerWasLost(),
                         uid.empty() ? "no card came" : "the card " + uid.text() + " did not come");
        }
    }

  private:
    static std::string placesOf(const detail::Session& session) {
        const char* root = std::getenv("QVL_DEVICE_ROOT");
        std::string places = root && *root ? root : "/dev/qvlreader";
        for (const std::string& port : session.triedPorts())
            places += " and on serial port " + port;
        return places;
    }
    static bool mayBeCard(const detail::Seen& seen) {
        return seen.type != kTagUltralight && seen.type != kTagStandard && seen.type != kTag4K;
    }

    static std::vector<detail::Seen> lookOrThrow(detail::Call& call) {
        auto seen = detail::listField(call);
        if (!seen) throwNoReader(call);
        return std::move(*seen);
    }
    [[noreturn]] static void throwNoReader(const detail::Call& call) {
        const bool wasLost = call.readerWasLost();
        throw Error(wasLost ? Reason::readerLost : Reason::noReader, kReaderNotReady,
                    wasLost ? "the reader was lost" : "the reader does not answer");
    }
    static void pauseOrThrow(detail::Call& call, bool readerIsThere, const std::string& what) {
        constexpr std::uint32_t kBetweenLooksMs = 100;
        if (call.pause(kBetweenLooksMs)) return;
        call.throwEnd(kWaitOver);
        if (!readerIsThere) throwNoReader(call);
        if (call.limit().isNow()) throw Error(Reason::noTag, kNoTag, what);
        throw Error(Reason::timedOut, kWaitOver, what + " within the time");
    }
    template <typename IsWanted>
    Tag waitFor(const Limit& limit, const std::string& otherwise, IsWanted isWanted) const {
        detail::Call call(mSession, limit);
        for (bool isThere = false;;) {
            const auto seen = detail::listField(call);
            isThere = isThere || seen.has_value();
            for (const detail::Seen& each : seen.value_or(std::vector<detail::Seen>()))
                if (isWanted(call, each)) return Tag(mSession, each);
            pauseOrThrow(call, isThere && !call.readerWasLost(), otherwise);
        }
    }
    static bool carries(detail::Call& call, const detail::Seen& seen, const ApplicationQuery& query) {
        const auto geometry = Geometry::of(seen.type);
        if (!geometry || !geometry->hasTrailers) return false;
        const detail::Call::Look look(call);
        detail::FromLibrary<short> ids(call.library());
        short count = 0;
        const TagUID tag(seen.uid.bytes().data(), static_cast<std::uint32_t>(seen.uid.bytes().size()), seen.type);
        const int status = call.library().getAllAppId(0, TagAppMad1, tag, count, ids.out(),
                                                      static_cast<AuthKeyMode>(query.directory.type),
                                                      query.directory.key.bytes().data());
        call.throwEnd(status);
        return status == kOk &&
               std::find(ids.get(), ids.get() + count, static_cast<short>(query.id)) != ids.get() + count;
    }
    /// None for a tag that is no card, or one that has left meanwhile.
    std::optional<Card> openCard(detail::Call& call, const detail::Seen& seen) const {
        const detail::Call::Look look(call);
        detail::FromLibrary<std::uint8_t> ats(call.library());
        std::uint8_t cid = 0;
        int length = 0;
        const TagUID tag(seen.uid.bytes().data(), static_cast<std::uint32_t>(seen.uid.bytes().size()), seen.type);
        const int status = call.library().openCard(0, tag, cid, ats.out(), length);
        call.throwEnd(status);
        if (status == detail::kNoFreeCid || status == kNotImplemented) call.fail(status);
        if (status != kOk) return std::nullopt;
        return Card(mSession, seen.uid, cid, Bytes(ats.get(), ats.get() + length));
    }

    detail::SessionPtr mSession;
};

}  // namespace qvl
