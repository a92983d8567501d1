#include "adts.h"

#include <algorithm>
#include <iterator>

namespace adts {

namespace {

const uint32_t RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                          22050, 16000, 12000, 11025, 8000,  7350};

bool frame_at(std::span<const uint8_t> bytes, Header& header)
{
    return read_header(bytes, header) && header.length <= bytes.size();
}

// Twelve sync bits turn up in any data; what stands behind the frame tells whether it is one.
bool is_confirmed(std::span<const uint8_t> bytes, const Header& header)
{
    Header next;
    return header.length == bytes.size() || read_header(bytes.subspan(header.length), next);
}

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
    bool inStep = false; // the byte before belongs to a frame
    size_t at = 0;
    while (at < stream.size()) {
        const auto rest = stream.subspan(at);
        Header header;
        if (frame_at(rest, header) && (inStep || is_confirmed(rest, header))) {
            result.frames.push_back({at, header});
            at += header.length;
            inStep = true;
        } else {
            ++result.skipped;
            ++at;
            inStep = false;
        }
    }
    return result;
}

std::vector<uint8_t> frame(std::span<const uint8_t> data, uint32_t sampleRate)
{
    const auto known = std::find(std::begin(RATES), std::end(RATES), sampleRate);
    const size_t rate = static_cast<size_t>((known == std::end(RATES) ? &RATES[11] : known) - RATES);
    const size_t length = data.size() + 7;
    std::vector<uint8_t> bytes = {0xFF,
                                  0xF1, // no CRC
                                  static_cast<uint8_t>(1 << 6 | rate << 2),
                                  static_cast<uint8_t>(2 << 6 | length >> 11),
                                  static_cast<uint8_t>(length >> 3),
                                  static_cast<uint8_t>(length << 5 | 0x1F),
                                  0xFC};
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

} // namespace adts
