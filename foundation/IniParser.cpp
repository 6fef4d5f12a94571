#include "IniParser.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr std::size_t kLongestPiece = 255;
constexpr char kBlank = ' ';

std::string_view withoutLeadingBlanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
    return text;
}

std::string_view withoutTrailingBlanks(std::string_view text) {
    return text.substr(0, text.find_last_not_of(kBlank) + 1);
}

/// Takes the next piece off the text: up to a line feed, at most 255 characters. What follows the first NUL, carriage
/// return or line feed of a piece is lost.
std::string_view takePiece(std::string_view& text) {
    const std::size_t end = std::min(text.substr(0, kLongestPiece).find('\n'), kLongestPiece - 1);
    std::string_view piece = text.substr(0, end + 1);
    text.remove_prefix(piece.size());
    piece = piece.substr(0, piece.find_first_of(std::string_view("\0\r\n", 3)));
    return withoutLeadingBlanks(piece);
}

/// The text between '[' at the front and the first ']', or false.
bool bracketed(std::string_view piece, std::string_view& inside) {
    if (!piece.starts_with('[')) return false;
    const std::size_t end = piece.find(']');
    if (end == std::string_view::npos) return false;
    inside = piece.substr(1, end - 1);
    return true;
}

class Parser {
  public:
    explicit Parser(IniTable& root) : mRoot(root) {}

    std::vector<int> parse(std::string_view text) {
        for (mLine = 1; !text.empty(); ++mLine) {
            const std::string_view piece = takePiece(text);
            if (mOpen.empty())
                takeTopLevel(piece);
            else
                takeInSection(piece);
        }
        return std::move(mWrongCloses);
    }

  private:
    void takeTopLevel(std::string_view piece) {
        std::string_view name;
        if (bracketed(piece, name)) open(mRoot, name);
    }

    void takeInSection(std::string_view piece) {
        std::string_view name;
        if (piece.starts_with("//")) return;
        if (const std::size_t equals = piece.find('='); equals != std::string_view::npos)
            addKey(piece.substr(0, equals), piece.substr(equals + 1));
        else if (bracketed(piece, name) && name.starts_with('/'))
            close(name.substr(1));
        else if (bracketed(piece, name))
            open(*mOpen.back()->table, name);
    }

    void addKey(std::string_view key, std::string_view value) {
        IniNode& node = mOpen.back()->table->insert(std::string(withoutTrailingBlanks(key)), INI_VALUE);
        node.text = withoutLeadingBlanks(withoutTrailingBlanks(value));
    }

    void open(IniTable& table, std::string_view name) {
        auto content = std::make_unique<IniTable>(kIniSectionBuckets);  // first: no section is ever without
        IniNode& node = table.insert(std::string(name), INI_TABLE);
        node.table = std::move(content);
        mOpen.push_back(&node);
    }

    void close(std::string_view name) {
        if (name != mOpen.back()->name) mWrongCloses.push_back(mLine);
        mOpen.pop_back();
    }

    IniTable& mRoot;
    std::vector<IniNode*> mOpen;  // the sections around the current line, outermost first
    std::vector<int> mWrongCloses;
    int mLine = 1;
};

}  // namespace

bool hasBearableSections(std::string_view text) {
    std::size_t lines = 0;
    while (!text.empty() && lines <= kMostSectionLines)
        if (takePiece(text).starts_with('[')) ++lines;
    return lines <= kMostSectionLines;
}

std::vector<int> parseIni(std::string_view text, IniTable& root) { return Parser(root).parse(text); }
