// Frames that are missing from a recording by their numbers.
#pragma once

#include "CommonFun.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sdv {

constexpr uint32_t LongestLoss = 1'000'000; // frames; beyond it the numbers were damaged or began anew

struct FrameNumbers
{
    std::optional<uint32_t> last;
    uint64_t missing = 0;
    uint64_t gaps = 0; // places where the numbers jump, backwards as well
};

// Frames between two that follow one another in the recording; 0 when the numbers go back, or on from
// somewhere else.
uint64_t missing_between(uint32_t before, uint32_t after);

// Count the next frame, whose parts lie within it. One numbered 0 has no place among the others.
void add_number(FrameNumbers& numbers, uint32_t number);

// Count those of a file, which is read for that. The library's one job loses its key and its header by it. A
// file that cannot be opened has no numbers.
FrameNumbers numbers_of(const std::string& path);

} // namespace sdv
