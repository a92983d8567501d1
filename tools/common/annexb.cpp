#include "annexb.h"

namespace annexb {

namespace {

// Where the next 00 00 01 begins at or behind `from`; the size of the stream when there is none.
size_t find_start_code(std::span<const uint8_t> stream, size_t from)
{
    size_t at = from;
    while (at + 3 <= stream.size()) {
        if (stream[at + 2] > 1)
            at += 3;
        else if (stream[at + 2] == 1 && stream[at] == 0 && stream[at + 1] == 0)
            return at;
        else
            ++at;
    }
    return stream.size();
}

bool is_slice(uint8_t type)
{
    return type >= 1 && type <= 5;
}

// first_mb_in_slice comes first in a slice header, and 0 is coded as the single bit 1. The later partitions
// of a slice (3 and 4) do not carry it.
bool starts_picture(std::span<const uint8_t> stream, const Nal& nal)
{
    const bool hasFirstMb = nal.type == 1 || nal.type == 2 || nal.type == 5;
    return hasFirstMb && nal.payload + 1 < nal.end && (stream[nal.payload + 1] & 0x80);
}

// SEI, SPS, PPS and the delimiter only stand in front of a picture.
bool leads_picture(uint8_t type)
{
    return type >= 6 && type <= 9;
}

// From its NAL header byte on.
std::span<const uint8_t> from_first_slice(std::span<const uint8_t> unit)
{
    for (size_t at = find_start_code(unit, 0); at + 3 < unit.size(); at = find_start_code(unit, at + 3))
        if (is_slice(unit[at + 3] & 0x1F)) return unit.subspan(at + 3);
    return {};
}

} // namespace

std::vector<Nal> split_nals(std::span<const uint8_t> stream)
{
    std::vector<Nal> nals;
    size_t code = find_start_code(stream, 0);
    while (code + 3 < stream.size()) {
        const size_t next = find_start_code(stream, code + 3);
        const bool nextIsLong = next < stream.size() && next > code + 3 && stream[next - 1] == 0;
        const size_t begin =
            nals.empty() ? (code > 0 && stream[code - 1] == 0 ? code - 1 : code) : nals.back().end;
        const size_t end = nextIsLong ? next - 1 : next;
        if (end > code + 3) {
            const uint8_t type = stream[code + 3] & 0x1F;
            nals.push_back({begin, code + 3, end, type});
        }
        code = next;
    }
    return nals;
}

bool is_h265(std::span<const uint8_t> stream, std::span<const Nal> nals)
{
    bool video = false, sequence = false; // parameter sets, of the base layer
    for (const Nal& nal : nals) {
        if (nal.type == 7) return false;
        const bool headed = nal.end - nal.payload >= 2 && stream[nal.payload + 1] == 1;
        video |= headed && stream[nal.payload] == 32 << 1;
        sequence |= headed && stream[nal.payload] == 33 << 1;
    }
    return video && sequence;
}

std::vector<AccessUnit> split_access_units(std::span<const uint8_t> stream, std::span<const Nal> nals)
{
    std::vector<AccessUnit> units;
    bool pictureSeen = false; // the open unit has a slice
    for (const Nal& nal : nals) {
        const bool starts = pictureSeen && (leads_picture(nal.type) || starts_picture(stream, nal));
        if (units.empty() || starts) {
            units.push_back({nal.begin, nal.end, false});
            pictureSeen = false;
        }
        AccessUnit& unit = units.back();
        unit.end = nal.end;
        unit.key = unit.key || nal.type == 5;
        pictureSeen = pictureSeen || is_slice(nal.type);
    }

    if (units.empty() || pictureSeen) return units;
    const size_t end = units.back().end;
    units.pop_back();
    if (!units.empty()) units.back().end = end;
    return units;
}

uint8_t first_slice_type(std::span<const uint8_t> unit)
{
    const auto slice = from_first_slice(unit);
    return slice.empty() ? 0 : slice[0] & 0x1F;
}

bool first_slice_is_intra(std::span<const uint8_t> unit)
{
    const auto slice = from_first_slice(unit);
    if (slice.size() < 2) return false;
    // Exp-Golomb codes: macroblock 0, and slice type 2 or 7.
    return slice[1] >> 4 == 0b1011 || slice[1] == 0b10001000;
}

std::vector<uint8_t> with_long_start_code(std::span<const uint8_t> unit)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(unit.size() + 1);
    if (unit.size() >= 3 && unit[2] == 1) bytes.push_back(0);
    bytes.insert(bytes.end(), unit.begin(), unit.end());
    return bytes;
}

} // namespace annexb
