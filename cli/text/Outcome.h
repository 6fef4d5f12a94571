#pragma once

#include <string>

/// How a run ends; the values are the exit statuses of the program.
enum class Outcome : int {
    done = 0,
    failed = 1,  ///< Refused, failed or cancelled.
    usage = 2,
    noReader = 3,
};

/// What went wrong, in words for a person. Sentences end without a full stop in `meaning` and with one in `advice`.
struct Problem {
    Outcome outcome = Outcome::failed;
    std::string name;     ///< A few words, such as "no tag"; scripts may compare it.
    std::string meaning;  ///< What has happened.
    std::string advice;   ///< What to try; may be empty.
    int status = 0;       ///< Status from the library; 0 if it gave none.
    std::string reason;   ///< Reason class of the host layer; empty for what is not from there.
};
