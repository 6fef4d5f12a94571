#pragma once

#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// A JSON value for output, kept as its text. Members of an object stand in the order in which they came.
class Json {
  public:
    struct Member;

    /// An empty object.
    Json() : mText("{}") {}
    Json(std::initializer_list<Member> members);
    Json(std::string_view text);
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(const char* text) : Json(std::string_view(text)) {}
    template <std::integral Number>
    Json(Number value) : mText(numberText(value)) {}
    template <typename Element>
    Json(const std::vector<Element>& elements) : Json(array()) {
        for (const Element& each : elements)
            push_back(each);
    }
    static Json array() { return Json(Raw{"[]"}); }

    /// Adds a member to an object; it must not have one of this name.
    void add(std::string_view name, const Json& value);
    /// Adds an element to an array.
    void push_back(const Json& value);

    const std::string& text() const { return mText; }

  private:
    struct Raw {
        const char* text;
    };
    explicit Json(Raw raw) : mText(raw.text) {}
    static std::string numberText(bool value) { return value ? "true" : "false"; }
    template <typename Number>
    static std::string numberText(Number value) {
        return std::to_string(value);
    }
    void append(const std::string& item);

    std::string mText;
};

struct Json::Member {
    std::string_view name;
    Json value;
};
