// The picture size and rate that an H.264 sequence parameter set gives.
#pragma once

#include <cstdint>
#include <span>

namespace sps {

struct PictureSize
{
    uint32_t width = 0; // pixels to be shown: after cropping
    uint32_t height = 0;
};

// From a whole SPS NAL unit, header byte first, emulation prevention still in it. False when the bytes are
// not an SPS, end too early or give no size from 1 to 65535 either way; `size` is then as it was.
bool picture_size(std::span<const uint8_t> nal, PictureSize& size);

struct Timing
{
    double rate = 0;    // pictures a second
    bool fixed = false; // else pictures may also last longer
};

// False as above, or when the SPS has no timing.
bool picture_timing(std::span<const uint8_t> nal, Timing& timing);

// The rate rounded to a whole number. False as above, or when there is none from 1 to UINT32_MAX.
bool picture_rate(std::span<const uint8_t> nal, uint32_t& rate);

} // namespace sps
