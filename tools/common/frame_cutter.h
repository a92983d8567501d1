// A stream that comes in pieces of any size, cut into whole frames.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sdv {

struct FrameCutter
{
    std::vector<uint8_t> buffer;
    size_t begin = 0; // the bytes that wait: buffer[begin] to buffer[end - 1]
    size_t end = 0;
    uint64_t skipped = 0; // bytes that belong to no frame

    // Of take_file_frame(): the first frame is a key frame; what follows one numbered 0 is not searched for.
    bool begun = false, found = false;
};

// Room for the next piece, at least 1 MiB as long as frames are taken out. What was written into it counts
// after add_piece().
std::span<uint8_t> piece_room(FrameCutter& cutter);
void add_piece(FrameCutter& cutter, size_t count);

// The next `count` bytes as they come; empty when not so many wait.
std::span<uint8_t> take_bytes(FrameCutter& cutter, size_t count);

// The next whole frame of a stream of this mode; empty when none waits. It lies in the buffer, to be used
// before the next call of piece_room(). Frames are found by the rules of RecordAviEx().
std::span<uint8_t> take_frame(FrameCutter& cutter, int mode);

// The same of a whole file, from its first byte on, by the rules of a file conversion.
std::span<uint8_t> take_file_frame(FrameCutter& cutter);

// When the stream has ended: the frame that begins here lacks bytes, or only seems to. Go past its start, to
// look for whole ones behind it. False when there can be none.
bool skip_torn(FrameCutter& cutter);

} // namespace sdv
