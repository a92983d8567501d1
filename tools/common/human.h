// Quantities as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tools {

std::string human_bytes(uint64_t bytes);                      // "512 B", "1.5 MiB"
std::string human_duration(double seconds);                   // "0:07", "1:02:03"
std::string counted(uint64_t count, const std::string& what); // "1 frame", "2 frames"

// Text that may come from anybody, such as a file name, without what a terminal would obey.
std::string printable(std::string_view text);

} // namespace tools
