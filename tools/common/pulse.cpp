#include "pulse.h"

namespace tools {
namespace {

constexpr uint64_t EnoughPerSecond = 1000;

} // namespace

void begin_pulse(Pulse& pulse)
{
    pulse.heard = pulse.since = pulse.frame = Pulse::Clock::now();
    pulse.bytes = 0;
}

void hear_bytes(Pulse& pulse, uint64_t count)
{
    pulse.heard = Pulse::Clock::now();
    pulse.bytes += count;
}

void hear_frame(Pulse& pulse)
{
    pulse.since = pulse.frame = Pulse::Clock::now();
    pulse.bytes = 0;
}

bool is_silent(const Pulse& pulse, std::chrono::seconds time)
{
    return Pulse::Clock::now() - pulse.heard >= time;
}

bool is_idle(Pulse& pulse, std::chrono::seconds time)
{
    const auto period = Pulse::Clock::now() - pulse.since;
    if (period < time) return false;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period).count();
    if (pulse.bytes < EnoughPerSecond * uint64_t(seconds)) return true;
    pulse.since = Pulse::Clock::now();
    pulse.bytes = 0;
    return false;
}

} // namespace tools
