#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

class TagMemory;

/// What a smart card does with a command once it is complete. How the bytes travel in blocks is CardProtocol's affair.
class CardApplication {
  public:
    struct Answer {
        std::vector<std::uint8_t> bytes;
        std::uint8_t wtxMultiplier = 0;  ///< Asks for more time by this factor, 1 to 59,
        unsigned wtxCount = 0;           ///< so many times, before the bytes go out.
        bool powerLost = false;          ///< The power failed meanwhile: there is no answer, the card starts anew.
    };

    virtual ~CardApplication() = default;
    virtual Answer onCommand(std::span<const std::uint8_t> command) = 0;
    /// The card was activated or lost its power: whatever was selected is not any more.
    virtual void onReset() {}
    /// What the application remembers; null for none.
    virtual TagMemory* memory() { return nullptr; }
    /// The same application with the same content, for another card.
    virtual std::unique_ptr<CardApplication> clone() const = 0;
};
