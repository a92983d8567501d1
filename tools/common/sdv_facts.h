// The figures of a recording with their names: for people on a terminal and on a page, and for programs.
#pragma once

#include "sdv_stats.h"

#include <string>
#include <variant>
#include <vector>

namespace sdv {

// Nothing where the recording does not tell.
using FactValue = std::variant<std::monostate, bool, uint64_t, double, std::string>;

struct Fact
{
    std::string id; // where it stands in the JSON text, such as "audio/rate"
    std::string label;
    std::string text;
    FactValue value;
    bool worthALine = true; // for people
};

struct FactGroup
{
    std::string title;
    std::vector<Fact> facts;
};

std::vector<FactGroup> facts_of(const Stats& stats);

// What became of it, what a key would bring and whether it plays: "0.4 s of 10.0 s lost; plays; 2 damaged
// places".
std::string verdict(const Stats& stats);

// Where something is, behind the recording's start: "1:02:03.4".
std::string place_text(double seconds);

} // namespace sdv
