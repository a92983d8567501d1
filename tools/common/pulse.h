// Whether a camera is still there. Bytes alone do not tell: one now and then keeps a place for ever.
#pragma once

#include <chrono>
#include <cstdint>

namespace tools {

struct Pulse
{
    using Clock = std::chrono::steady_clock;

    Clock::time_point heard; // the last byte
    Clock::time_point since; // the last whole frame, or the last period in which enough came without one
    uint64_t bytes = 0;      // since then
    Clock::time_point frame; // the last whole frame, or the beginning
};

void begin_pulse(Pulse& pulse);
void hear_bytes(Pulse& pulse, uint64_t count);
void hear_frame(Pulse& pulse);

bool is_silent(const Pulse& pulse, std::chrono::seconds time);

// No whole frame for so long, and less than a kilobyte a second meanwhile: a slow link may need longer for a
// big frame.
bool is_idle(Pulse& pulse, std::chrono::seconds time);

} // namespace tools
