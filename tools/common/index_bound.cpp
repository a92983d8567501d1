#include "index_bound.h"

#include "Quorlin.h"

#include <cstring>

namespace tools {
namespace {

constexpr uint64_t EntrySize = sizeof(AVI_IndexEntity);
constexpr uint64_t Suspicious = 16 << 20; // bytes of index that any recording may have
constexpr uint64_t Full = 128 << 20;      // more than a day of usual frames
constexpr uint64_t Most = Full + (16 << 20);
constexpr uint16_t Enciphered = 2, CipherMask = 3;

TSdv2Avi& job = g_tSdv2Avi;

uint64_t index_size()
{
    return job.m_fsRec ? uint64_t(job.m_iTotalFrames) * EntrySize : 0;
}

bool outgrows_chunks()
{
    const uint64_t index = index_size();
    if (index <= Suspicious) return false;
    const uint64_t heads = uint64_t(job.m_iTotalFrames) * sizeof(AVI_FrameHeader);
    return index + heads > uint64_t(ftello(job.m_fsRec));
}

// The header moves up to the picture. An enciphered frame keeps what stands in front of the picture: the
// cipher begins behind the header.
std::span<uint8_t> without_audio(std::span<uint8_t> frame)
{
    S_FrameHeader header;
    memcpy(&header, frame.data(), sizeof(header));
    const bool enciphered = (header.reserved & CipherMask) == Enciphered;
    const size_t kept = enciphered ? header.u16AFrames >> 8 : 0;
    const size_t before = ((header.u16AFrames >> 8) - kept) * header.u16AFrameSize;
    const size_t size = sizeof(header) + kept * header.u16AFrameSize + header.u32VStreamLen;
    if (before + size > frame.size()) return frame; // which the library drops
    header.u16AFrames = uint16_t(kept << 8);
    header.u32FrameSize = uint32_t(size);
    memcpy(&frame[before], &header, sizeof(header));
    return frame.subspan(before, size);
}

} // namespace

bool is_index_full()
{
    return index_size() >= Full;
}

std::span<uint8_t> bound_index(IndexBound& bound, std::span<uint8_t> frame)
{
    if (index_size() >= Most) {
        if (!bound.toldFull) log_msg("frames are left out until a key frame begins a new file");
        bound.toldFull = true;
        return {};
    }
    bound.toldFull = false;
    if (!bound.silenced && outgrows_chunks()) {
        log_msg("the audio is hardly more than headers: from here on it is left out");
        bound.silenced = true;
    }
    return bound.silenced ? without_audio(frame) : frame;
}

} // namespace tools
