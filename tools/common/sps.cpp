#include "sps.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <vector>

namespace sps {

namespace {

struct BitReader
{
    std::vector<uint8_t> bytes;
    size_t position = 0;
    bool failed = false; // read past the end, or a number that is too long; everything read since is 0
};

// Inside a NAL unit a 3 stands behind every two zero bytes that could be taken for a start code.
std::vector<uint8_t> without_emulation_prevention(std::span<const uint8_t> nal)
{
    std::vector<uint8_t> bytes;
    int zeros = 0;
    for (const uint8_t byte : nal) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        bytes.push_back(byte);
    }
    return bytes;
}

uint32_t bits(BitReader& reader, int count)
{
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        if (reader.position >= reader.bytes.size() * 8) reader.failed = true;
        if (reader.failed) return 0;
        const uint8_t byte = reader.bytes[reader.position / 8];
        value = value << 1 | (byte >> (7 - reader.position % 8) & 1u);
        ++reader.position;
    }
    return value;
}

bool flag(BitReader& reader)
{
    return bits(reader, 1) != 0;
}

uint32_t unsigned_golomb(BitReader& reader)
{
    int zeros = 0;
    while (!reader.failed && !flag(reader)) ++zeros;
    if (zeros > 31) reader.failed = true;
    if (reader.failed) return 0;
    return (1u << zeros) - 1 + bits(reader, zeros);
}

int64_t signed_golomb(BitReader& reader)
{
    const int64_t code = unsigned_golomb(reader);
    return code % 2 ? (code + 1) / 2 : -(code / 2);
}

void skip_scaling_list(BitReader& reader, int entries)
{
    int64_t last = 8;
    for (int i = 0; i < entries && !reader.failed; ++i) {
        const int64_t next = (last + signed_golomb(reader)) & 0xFF;
        if (next == 0) return; // the rest repeats the last value
        last = next;
    }
}

bool has_chroma_format(uint32_t profile)
{
    static const uint8_t PROFILES[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::find(std::begin(PROFILES), std::end(PROFILES), profile) != std::end(PROFILES);
}

// Chroma format of the picture arrays: 0 when the three planes are coded apart.
uint32_t read_chroma_format(BitReader& reader)
{
    const uint32_t format = unsigned_golomb(reader);
    if (format > 3) reader.failed = true;
    const bool separatePlanes = format == 3 && flag(reader);
    unsigned_golomb(reader); // bit depths
    unsigned_golomb(reader);
    flag(reader);
    if (flag(reader)) {
        const int lists = format == 3 ? 12 : 8;
        for (int i = 0; i < lists && !reader.failed; ++i)
            if (flag(reader)) skip_scaling_list(reader, i < 6 ? 16 : 64);
    }
    return separatePlanes ? 0 : format;
}

void skip_picture_order(BitReader& reader)
{
    const uint32_t type = unsigned_golomb(reader);
    if (type == 0) unsigned_golomb(reader);
    if (type != 1) return;

    flag(reader);
    signed_golomb(reader);
    signed_golomb(reader);
    const uint32_t count = unsigned_golomb(reader);
    if (count > 255) reader.failed = true;
    for (uint32_t i = 0; i < count && !reader.failed; ++i) signed_golomb(reader);
}

PictureSize read_size(BitReader& reader, uint32_t chroma)
{
    // 64 bits: none of these sums of 32-bit numbers can wrap.
    uint64_t width = 16 * (uint64_t{unsigned_golomb(reader)} + 1);
    uint64_t height = 16 * (uint64_t{unsigned_golomb(reader)} + 1);
    const bool framesOnly = flag(reader);
    if (!framesOnly) {
        height *= 2;
        flag(reader);
    }
    flag(reader);
    if (flag(reader)) {
        const uint64_t unitX = chroma == 1 || chroma == 2 ? 2 : 1;
        const uint64_t unitY = (chroma == 1 ? 2 : 1) * (framesOnly ? 1 : 2);
        uint64_t crop[4]; // left, right, top, bottom
        for (uint64_t& edge : crop) edge = unsigned_golomb(reader);
        width -= std::min(width, unitX * (crop[0] + crop[1]));
        height -= std::min(height, unitY * (crop[2] + crop[3]));
    }

    const bool possible = width >= 1 && width <= 0xFFFF && height >= 1 && height <= 0xFFFF;
    if (!possible) reader.failed = true;
    return {static_cast<uint32_t>(width), static_cast<uint32_t>(height)};
}

// The reader up to the picture size, which is left in `size`.
bool read_to_size(BitReader& reader, std::span<const uint8_t> nal, PictureSize& size)
{
    if (nal.empty() || (nal[0] & 0x1F) != 7) return false;

    reader.bytes = without_emulation_prevention(nal.subspan(1));
    const uint32_t profile = bits(reader, 8);
    bits(reader, 16); // constraints, level
    unsigned_golomb(reader);
    const uint32_t chroma = has_chroma_format(profile) ? read_chroma_format(reader) : 1;
    unsigned_golomb(reader); // bits of a frame number
    skip_picture_order(reader);
    unsigned_golomb(reader); // reference frames
    flag(reader);
    size = read_size(reader, chroma);
    return !reader.failed;
}

void skip_to_timing(BitReader& reader)
{
    const uint32_t ANY_SHAPE = 255; // of a pixel: its width and height follow
    if (flag(reader) && bits(reader, 8) == ANY_SHAPE) bits(reader, 32);
    if (flag(reader)) flag(reader); // overscan
    if (flag(reader)) {             // signal: format, range, colours
        bits(reader, 4);
        if (flag(reader)) bits(reader, 24);
    }
    if (flag(reader)) { // places of the chroma samples
        unsigned_golomb(reader);
        unsigned_golomb(reader);
    }
}

} // namespace

bool picture_size(std::span<const uint8_t> nal, PictureSize& size)
{
    BitReader reader;
    PictureSize read;
    if (!read_to_size(reader, nal, read)) return false;
    size = read;
    return true;
}

bool picture_timing(std::span<const uint8_t> nal, Timing& timing)
{
    BitReader reader;
    PictureSize size;
    if (!read_to_size(reader, nal, size) || !flag(reader)) return false;
    skip_to_timing(reader);
    if (!flag(reader)) return false;
    const double tick = bits(reader, 32);
    const double scale = bits(reader, 32);
    const bool fixed = flag(reader);
    if (reader.failed || tick == 0) return false;
    timing = {scale / (2 * tick), fixed}; // two ticks a picture
    return true;
}

bool picture_rate(std::span<const uint8_t> nal, uint32_t& rate)
{
    Timing timing;
    if (!picture_timing(nal, timing)) return false;
    const double rounded = std::floor(timing.rate + 0.5);
    if (rounded < 1 || rounded > UINT32_MAX) return false;
    rate = static_cast<uint32_t>(rounded);
    return true;
}

} // namespace sps
