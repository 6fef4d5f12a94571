#pragma once

#include "HexBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

inline std::string counting(std::size_t from, std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(from + i);
    return text(bytes);
}

/// Says one message after the other and checks the answers: "message > answer; message > answer". In an answer
/// {from+count} stands for bytes that count up, {0*count} for zeros.
template <typename Send>
void speak(std::string_view dialogue, Send&& send) {
    while (!dialogue.empty()) {
        const std::string_view step = dialogue.substr(0, dialogue.find("; "));
        dialogue.remove_prefix(std::min(step.size() + 2, dialogue.size()));
        const std::size_t arrow = step.find(" > ");
        ASSERT_NE(arrow, std::string_view::npos) << step;
        std::string answer(step.substr(arrow + 3));
        for (std::size_t at; (at = answer.find('{')) != std::string::npos;) {
            std::size_t from = 0, count = 0;
            const bool zeros = std::sscanf(answer.c_str() + at, "{0*%zu}", &count) == 1;
            EXPECT_TRUE(zeros || std::sscanf(answer.c_str() + at, "{%zu+%zu}", &from, &count) == 2) << step;
            const std::string bytes = zeros ? text(std::vector<std::uint8_t>(count)) : counting(from, count);
            answer.replace(at, answer.find('}', at) + 1 - at, bytes);
        }
        EXPECT_EQ(send(step.substr(0, arrow)), answer) << step;
    }
}
