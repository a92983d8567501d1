#include "frame_cutter.h"

#include "Quorlin.h"

#include <cstring>

namespace sdv {
namespace {

constexpr size_t PieceRoom = 1 << 20;
constexpr size_t LargestFrame = 2 << 20;
constexpr size_t LargestFileFrame = 1 << 20;
constexpr int Mpeg4Mode = 11;
constexpr uint32_t Mpeg4Flag = 0x00FCFFFF; // the bits of its first four bytes that are the flag

// Size of the frame that begins there; 0 when none does.
size_t frame_size(uint8_t* at, int mode)
{
    uint32_t flag;
    memcpy(&flag, at, sizeof(flag));
    if (mode == Mpeg4Mode) flag &= Mpeg4Flag;
    if (flag != uint32_t(GetFrameFlagByMode(mode)) || !IsValidFrameHeader(at, mode)) return 0;
    const auto size = size_t(GetFrameSize(at, mode));
    return size < sizeof(S_FrameHeader) ? 0 : size;
}

void skip_bytes(FrameCutter& cutter, size_t count)
{
    cutter.begin += count;
    cutter.skipped += count;
}

bool seek_frame(FrameCutter& cutter)
{
    const size_t held = cutter.end - cutter.begin;
    if (held < sizeof(S_FrameHeader)) return false;
    int place = 0;
    cutter.found = FindFrame(&cutter.buffer[cutter.begin], int(held), &place, cutter.begun ? 0 : 1);
    skip_bytes(cutter, cutter.found ? size_t(place) : held - (sizeof(S_FrameHeader) - 1));
    cutter.begun |= cutter.found;
    return cutter.found;
}

} // namespace

std::span<uint8_t> piece_room(FrameCutter& cutter)
{
    cutter.buffer.resize(LargestFrame + 2 * PieceRoom);
    if (cutter.buffer.size() - cutter.end < PieceRoom) {
        memmove(cutter.buffer.data(), cutter.buffer.data() + cutter.begin, cutter.end - cutter.begin);
        cutter.end -= cutter.begin;
        cutter.begin = 0;
    }
    return std::span(cutter.buffer).subspan(cutter.end);
}

void add_piece(FrameCutter& cutter, size_t count)
{
    cutter.end += count;
}

std::span<uint8_t> take_bytes(FrameCutter& cutter, size_t count)
{
    if (cutter.end - cutter.begin < count) return {};
    const auto taken = std::span(cutter.buffer).subspan(cutter.begin, count);
    cutter.begin += count;
    return taken;
}

std::span<uint8_t> take_frame(FrameCutter& cutter, int mode)
{
    while (cutter.end - cutter.begin >= sizeof(S_FrameHeader)) {
        const size_t size = frame_size(&cutter.buffer[cutter.begin], mode);
        if (size) return take_bytes(cutter, size);
        skip_bytes(cutter, 1);
    }
    return {};
}

std::span<uint8_t> take_file_frame(FrameCutter& cutter)
{
    while (cutter.found || seek_frame(cutter)) {
        S_FrameHeader header;
        if (cutter.end - cutter.begin < sizeof(header)) return {};
        memcpy(&header, &cutter.buffer[cutter.begin], sizeof(header));
        if (header.u32FrameSize >= sizeof(header) && header.u32FrameSize <= LargestFileFrame) {
            const auto frame = take_bytes(cutter, header.u32FrameSize);
            if (!frame.empty()) cutter.found = header.u32FrameNO == 0;
            return frame;
        }
        // Only a header behind a frame numbered 0 can be like this: nobody has tested it.
        skip_bytes(cutter, 1);
        cutter.found = false;
    }
    return {};
}

bool skip_torn(FrameCutter& cutter)
{
    if (cutter.end - cutter.begin <= sizeof(S_FrameHeader)) return false;
    skip_bytes(cutter, 1);
    cutter.found = false;
    return true;
}

} // namespace sdv
