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

namespace {

// The bytes at the start of the text that would steer a terminal: a control character, also one of those
// above 0x7F, or a mark that turns the direction of what follows.
size_t steering(std::string_view text)
{
    const auto at = [text](size_t place) { return place < text.size() ? uint8_t(text[place]) : 0u; };
    if (at(0) < 0x20 || at(0) == 0x7F) return 1;
    if (at(0) == 0xC2 && at(1) >= 0x80 && at(1) < 0xA0) return 2;
    const unsigned mark = at(0) == 0xE2 ? at(1) << 8 | at(2) : 0;
    return mark == 0x808E || mark == 0x808F || (mark >= 0x80AA && mark <= 0x80AE) ||
                   (mark >= 0x81A6 && mark <= 0x81A9)
               ? 3
               : 0;
}

} // namespace

std::string printable(std::string_view text)
{
    std::string safe;
    for (size_t i = 0; i < text.size();) {
        const size_t length = steering(text.substr(i));
        safe += length ? '?' : text[i];
        i += length ? length : 1;
    }
    return safe;
}

} // namespace tools
