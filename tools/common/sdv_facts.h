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

// "2 damaged places", or that nothing is wrong.
std::string verdict(const Stats& stats);

} // namespace sdv
