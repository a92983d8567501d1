// An H.264 byte stream (Annex B: start codes between NAL units), cut into NAL units and access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace annexb {

struct Nal
{
    size_t begin;   // of the start code, 3 or 4 bytes long
    size_t payload; // of the NAL header byte
    size_t end;     // where the next start code begins, or the end of the stream
    uint8_t type;   // 5 IDR slice, 7 SPS, ...
};

struct AccessUnit
{
    size_t begin; // of its first start code
    size_t end;
    bool key; // holds an IDR slice
};

// In stream order. Bytes before the first start code belong to none; a start code with nothing behind it is
// no NAL unit.
std::vector<Nal> split_nals(std::span<const uint8_t> stream);

// H.265 parameter sets, and none of H.264: what looks like pictures is none of H.264's.
bool is_h265(std::span<const uint8_t> stream, std::span<const Nal> nals);

// One for every picture. Parameter sets behind the last picture stay with it; without any slice, none.
std::vector<AccessUnit> split_access_units(std::span<const uint8_t> stream, std::span<const Nal> nals);

// The NAL type of an access unit's first slice, 5 for a key picture; 0 when there is none in these bytes.
uint8_t first_slice_type(std::span<const uint8_t> unit);

// Is that slice an I slice, as key pictures that are no IDR pictures have them too?
bool first_slice_is_intra(std::span<const uint8_t> unit);

// The bytes of an access unit or NAL unit, with a 4-byte start code in front even where it had 3.
std::vector<uint8_t> with_long_start_code(std::span<const uint8_t> unit);

} // namespace annexb
