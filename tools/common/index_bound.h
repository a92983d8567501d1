// How much memory a camera can make us hold: the library keeps the open file's index, 16 bytes a chunk, and a
// chunk may be hardly more than a header on the wire.
#pragma once

#include <cstdint>
#include <span>

namespace tools {

struct IndexBound
{
    bool silenced = false; // no audio is recorded any more
    bool toldFull = false;
};

// Of the open file: the next key frame is to begin a new one, which gives the memory back.
bool is_index_full();

// What is to be recorded of a frame: all of it; without its audio, once the index outgrows what it points to;
// nothing, when no key frame has come although the file's index was full long ago. What is left out is told
// once. May write to the frame.
std::span<uint8_t> bound_index(IndexBound& bound, std::span<uint8_t> frame);

} // namespace tools
