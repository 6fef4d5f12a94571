// "led": one light of the reader. Leaving the reader turns all of them off, so the command stays for a moment.

#include "Command.h"
#include "Text.h"

#include <map>
#include <memory>
#include <string>

namespace {

constexpr int kHighestLed = 3, kLongestDuration = 31;
constexpr double kLongestStaySeconds = 1e6;

struct LedArguments {
    int led = 0;
    std::string state;
    int duration = 1;
    double staySeconds = 1;
};

Outcome switchLed(Session& session, const LedArguments& arguments) {
    const bool on = arguments.state == "on";
    session.reader().setLight(arguments.led, on, arguments.duration, session.limit());
    session.output().put({{"led", arguments.led}, {"on", on}, {"duration", arguments.duration}},
                         "LED " + std::to_string(arguments.led) + " " + arguments.state);
    if (on) session.interrupt().waitFor(fromSeconds(arguments.staySeconds));
    return Outcome::done;
}

}  // namespace

Work setUpLed(Options& options) {
    const auto arguments = std::make_shared<LedArguments>();
    options.value("LED", arguments->led, "Number of the light, 0 to 3").required().type("").range(0, kHighestLed);
    options.value("STATE", arguments->state, "on or off").required().type("").oneOf({"on", "off"});
    options
        .value("--duration", arguments->duration,
               "How long the reader lights it, 0 to 31 of its own steps; 1 by default")
        .type("D")
        .range(0, kLongestDuration);
    options
        .value("--for", arguments->staySeconds,
               "How long the program stays, for leaving turns all lights off;\n1 by default")
        .type("SECONDS")
        .range(0.0, kLongestStaySeconds);
    options.footer("LED 3 is a switch: it keeps its state whatever the duration. An MF RC500 has no\n"
                   "lights that the library can switch, and nothing happens.\n\n"
                   "Example: qvltag led 2 on --duration 5");
    return [arguments](Session& session) { return switchLed(session, *arguments); };
}
