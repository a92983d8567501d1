#include "human.h"

#include <cmath>
#include <cstdio>

namespace tools {

std::string human_bytes(uint64_t bytes)
{
    const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double amount = double(bytes);
    size_t unit = 0;
    while (amount >= 1024 && unit < 4) {
        amount /= 1024;
        ++unit;
    }
    char text[40];
    snprintf(text, sizeof(text), "%.*f %s", unit == 0 ? 0 : 1, amount, units[unit]);
    return text;
}

std::string human_duration(double seconds)
{
    const long all = std::isfinite(seconds) && seconds > 0 ? lround(std::fmin(seconds, 1e8)) : 0;
    char text[40];
    if (all >= 3600)
        snprintf(text, sizeof(text), "%ld:%02ld:%02ld", all / 3600, all / 60 % 60, all % 60);
    else
        snprintf(text, sizeof(text), "%ld:%02ld", all / 60, all % 60);
    return text;
}

std::string counted(uint64_t count, const std::string& what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

} // namespace tools
