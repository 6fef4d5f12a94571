#pragma once

#include "CardApplication.h"

#include <string>
#include <string_view>

/// Answers to commands as written down, one rule a line:
///
///     00A40400* 9000                           anything that begins so
///     80CA??00 0102 wtx 10                     asks once for ten times the time, then answers
///     80F0* echo 9000                          the whole command, and 90 00 after it
///     80E0 count 3000 9000 wtx 2x5             3000 bytes 00 01 02 .., after five requests for time
///
/// The first rule that matches answers; what none matches goes to the next application, or is refused with 6D 00.
struct CardRule {
    struct Piece {
        enum class Kind : std::uint8_t { bytes, echo, count };
        Kind kind = Kind::bytes;
        std::vector<std::uint8_t> bytes;
        std::size_t count = 0;
    };
    std::vector<std::uint8_t> pattern, mask;  ///< Of the same length; a byte of the mask is 00 where any byte fits.
    bool anyRest = false;
    std::vector<Piece> pieces;
    std::uint8_t wtxMultiplier = 0;
    unsigned wtxCount = 0;

    bool matches(std::span<const std::uint8_t> command) const;
};

/// Reads PATTERN RESPONSE [wtx M[xN]]. @return empty, or what is wrong; `rule` is then of no use.
std::string parseCardRule(std::string_view text, CardRule& rule);

class CardScript : public CardApplication {
  public:
    explicit CardScript(std::vector<CardRule> rules, std::unique_ptr<CardApplication> next = nullptr)
        : mRules(std::move(rules)), mNext(std::move(next)) {}

    Answer onCommand(std::span<const std::uint8_t> command) override;
    void onReset() override {
        if (mNext) mNext->onReset();
    }
    TagMemory* memory() override { return mNext ? mNext->memory() : nullptr; }
    std::unique_ptr<CardApplication> clone() const override {
        return std::make_unique<CardScript>(mRules, mNext ? mNext->clone() : nullptr);
    }

  private:
    std::vector<CardRule> mRules;
    std::unique_ptr<CardApplication> mNext;
};
