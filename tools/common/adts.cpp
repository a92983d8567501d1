#include "adts.h"

#include <iterator>

namespace adts {

namespace {

const uint32_t RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                          22050, 16000, 12000, 11025, 8000,  7350};

} // namespace

bool read_header(std::span<const uint8_t> bytes, Header& header)
{
    if (bytes.size() < 7) return false;
    if (bytes[0] != 0xFF || (bytes[1] & 0xF6) != 0xF0) return false; // twelve sync bits, layer 0

    const size_t rate = bytes[2] >> 2 & 0xFu;
    const bool crc = !(bytes[1] & 1);
    const size_t length = (bytes[3] & 3u) << 11 | bytes[4] << 3 | bytes[5] >> 5;
    if (rate >= std::size(RATES) || length < (crc ? 9u : 7u)) return false;

    const uint32_t channels = (bytes[2] & 1u) << 2 | bytes[3] >> 6;
    header = {RATES[rate], channels, crc, length};
    return true;
}

Split split(std::span<const uint8_t> stream)
{
    Split result;
    size_t at = 0;
    while (at < stream.size()) {
        Header header;
        if (read_header(stream.subspan(at), header) && header.length <= stream.size() - at) {
            result.frames.push_back({at, header});
            at += header.length;
        } else {
            ++result.skipped;
            ++at;
        }
    }
    return result;
}

} // namespace adts
