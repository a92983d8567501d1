// What a conversion lost, in words.
#pragma once

#include "Quorlin.h"

#include <string>

namespace tools {

SdvReport conversion_report();

uint64_t dropped_frames(const SdvReport& report);

// Was anything dropped or skipped?
bool is_anything_lost(const SdvReport& report);

// One line without a line end, such as "1990 frames recorded; 4096 bytes skipped in 2 gaps, the first at
// 81920; dropped: 3 with a wrong key, 1 inconsistent".
std::string describe_report(const SdvReport& report);

} // namespace tools
