#pragma once

#include "LinkKey.h"
#include "Mf500Firmware.h"

#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <vector>

/// The reader's end of the host link: messages. A command is its code and its parameters; a reply is the status, 16
/// bits low byte first, and its values. A reader that knows the link key scrambles parameters and values with RC4, but
/// for code and status, once a key is agreed, and then ends each reply with the key of the next command. One stream
/// serves a command and its reply. Block exchanges travel in the clear, the new key included.
class Mf500Link {
  public:
    using Values = Mf500Firmware::Values;

    explicit Mf500Link(const ReaderOptions& options) : mOptions(options), mRandom(options.keySeed) {}

    /// Forgets the key: the link is in the clear.
    void reset();
    bool isKeyed() const { return mStream.isKeyed(); }
    /// Puts the stream out of step with the host.
    void skipStream() { mStream.skip(); }

    /// Unscrambles the parameters of a command in place.
    void open(std::uint8_t code, std::span<std::uint8_t> parameters);
    /// First half of the key agreement: a challenge that is derived from, and a session key under the derived one. The
    /// values stay empty where the reader does not take part.
    Mf500Status agree(std::span<const std::uint8_t> challenge, Values& values);
    /// Second half: what was derived, under the session key. If it is wrong the link is back in the clear.
    Mf500Status confirm(std::span<const std::uint8_t> confirmation);
    /// Makes the message of a reply. The values are used up.
    void seal(std::uint8_t code, Mf500Status status, Values& values, std::vector<std::uint8_t>& message);

  private:
    LinkKey newKey();

    const ReaderOptions& mOptions;
    LinkStream mStream;
    LinkKey mConfirmation{};
    std::optional<LinkKey> mOffered;  ///< Session key that is in force after the reply under way.
    std::minstd_rand mRandom;
};
