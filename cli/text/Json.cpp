#include "Json.h"

#include <nlohmann/json.hpp>

Json::Json(std::initializer_list<Member> members) : Json() {
    for (const Member& each : members)
        add(each.name, each.value);
}

// File names may hold bytes that are no UTF-8.
Json::Json(std::string_view text)
    : mText(nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) {}

void Json::add(std::string_view name, const Json& value) { append(Json(name).mText + ":" + value.mText); }

void Json::push_back(const Json& value) { append(value.mText); }

void Json::append(const std::string& item) {
    const char closing = mText.back();
    mText.pop_back();
    if (mText.size() > 1) mText += ',';
    mText += item + closing;
}
