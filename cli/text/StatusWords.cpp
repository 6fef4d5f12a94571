#include "StatusWords.h"

#include "Text.h"

#include <algorithm>
#include <iterator>

namespace {

struct Meaning {
    StatusWord word;
    const char* text;
};

constexpr Meaning kMeanings[] = {
    {0x9000, "done"},
    {0x6281, "warning: a part of the data may be damaged"},
    {0x6282, "warning: the file or record ended before Le bytes were read"},
    {0x6283, "warning: the selected file is deactivated"},
    {0x6284, "warning: the control information has an unusual format"},
    {0x6285, "warning: the selected file is in its termination state"},
    {0x6286, "warning: a sensor on the card gave no data"},
    {0x6381, "warning: the file is full now"},
    {0x6401, "the card wants an answer at once"},
    {0x6581, "the memory of the card failed"},
    {0x6700, "wrong length (Lc or Le)"},
    {0x6881, "logical channels are not supported"},
    {0x6882, "secure messaging is not supported"},
    {0x6883, "the last command of a chain is expected"},
    {0x6884, "command chaining is not supported"},
    {0x6981, "the command does not fit the kind of file"},
    {0x6982, "the security condition is not met: authenticate first"},
    {0x6983, "the authentication method is blocked: no tries are left"},
    {0x6984, "the reference data cannot be used"},
    {0x6985, "the conditions of use are not met"},
    {0x6986, "not allowed: no file is selected"},
    {0x6987, "secure messaging: an object is missing"},
    {0x6988, "secure messaging: an object is wrong"},
    {0x6A80, "wrong content of the data field"},
    {0x6A81, "the function is not supported"},
    {0x6A82, "file or application not found"},
    {0x6A83, "record not found"},
    {0x6A84, "not enough room in the file"},
    {0x6A85, "Lc does not fit the structure of the data"},
    {0x6A86, "wrong P1 or P2"},
    {0x6A87, "Lc does not fit P1 and P2"},
    {0x6A88, "referenced data not found"},
    {0x6A89, "the file exists already"},
    {0x6A8A, "the name of the application exists already"},
    {0x6B00, "wrong P1 or P2: outside the file"},
    {0x6D00, "instruction (INS) not supported"},
    {0x6E00, "class (CLA) not supported"},
    {0x6F00, "failed, without a reason"},
};

/// For what has no row of its own.
const char* familyText(std::uint8_t first) {
    switch (first) {
    case 0x62:
        return "warning: the memory is unchanged";
    case 0x63:
        return "warning: the memory has changed";
    case 0x64:
        return "execution failed, the memory is unchanged";
    case 0x65:
        return "execution failed, the memory has changed";
    case 0x66:
        return "security problem";
    case 0x67:
        return "wrong length (Lc or Le)";
    case 0x68:
        return "a function of the class (CLA) is not supported";
    case 0x69:
        return "command not allowed";
    case 0x6A:
    case 0x6B:
        return "wrong parameters";
    case 0x6D:
        return "instruction (INS) not supported";
    case 0x6E:
        return "class (CLA) not supported";
    case 0x6F:
        return "failed, the reason is the card's own";
    default:
        break;
    }
    return (first & 0xF0) == 0x90 ? "the meaning is the application's own" : "no status word of ISO/IEC 7816-4";
}

std::size_t lengthOf(std::uint8_t second) { return second == 0 ? 256 : second; }

}  // namespace

std::optional<StatusWord> statusWordOf(std::span<const std::uint8_t> answer) {
    if (answer.size() < 2) return std::nullopt;
    const auto last = answer.last<2>();
    return static_cast<StatusWord>(last[0] << 8 | last[1]);
}

bool isFine(StatusWord word) { return word == kSwDone || sw1(word) == kSw1MoreBytes; }

std::string statusWordText(StatusWord word) {
    if (sw1(word) == kSw1MoreBytes)
        return "done, " + counted(lengthOf(sw2(word)), "more byte") + " for GET RESPONSE (--follow fetches them)";
    if (sw1(word) == kSw1WrongLe)
        return "wrong Le: " + counted(lengthOf(sw2(word)), "byte") + " would be right (--follow repeats the command)";
    constexpr StatusWord kCounter = 0x63C0;
    if ((word & 0xFFF0) == kCounter) return "warning: " + std::to_string(word & 0x0F) + " tries left";
    const Meaning* row = std::ranges::find(kMeanings, word, &Meaning::word);
    return row == std::end(kMeanings) ? familyText(sw1(word)) : row->text;
}
