// AAC audio in ADTS frames, cut into its frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace adts {

const uint32_t SAMPLES_PER_FRAME = 1024;
const size_t MAX_FRAME = 8191; // header included

struct Header
{
    uint32_t sampleRate; // Hz
    uint32_t channels;   // 0: told inside the stream
    bool crc;            // two more header bytes follow the seven
    size_t length;       // whole frame in bytes, header included
};

struct Frame
{
    size_t offset;
    Header header;
};

struct Split
{
    std::vector<Frame> frames;
    size_t skipped = 0; // bytes that belong to no frame
};

// The header at the start of `bytes`. False when there is none, or one that cannot be: another layer, no
// known sample rate, a length shorter than the header. The frame may be longer than `bytes`.
bool read_header(std::span<const uint8_t> bytes, Header& header);

// Whole frames only. Bytes between them, and a frame torn at the end, are skipped and counted. Behind skipped
// bytes a frame counts only when another header or the end of the stream follows it.
Split split(std::span<const uint8_t> stream);

// A frame of AAC LC in stereo, which MAX_FRAME has to hold; 8000 Hz where ADTS does not know the rate.
std::vector<uint8_t> frame(std::span<const uint8_t> data, uint32_t sampleRate);

} // namespace adts
