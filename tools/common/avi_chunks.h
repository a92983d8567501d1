// The chunks of a recording that was cut off, as they lie in the file: no header and no index tells of them.
#pragma once

#include "Quorlin.h"
#include "avi_bytes.h"

#include <functional>
#include <vector>

namespace tools {

constexpr uint8_t PadByte = '0';

struct AviChunks
{
    uint32_t area = 0; // size of the header area in front of them
    uint64_t end = 0;  // behind the last whole one, whose pad byte may be missing
    uint64_t cut = 0;  // bytes of a torn one behind it
    uint32_t pictures = 0, audio = 0, largest = 0;
    std::vector<uint8_t> sps; // the first one in the video, empty when there is none
};

// False, and the reason in `why`, when there are none, or when something else lies behind them: what is cut
// off shall be known to be a torn chunk, or an index that was being written.
bool read_chunks(const avi::File& file, AviChunks& chunks, std::string& why);

// Go through those chunks once more, for the index: a file may hold more entries than there is memory. What
// stands at the offsets that `wrongPad` is told, if anything, is no pad byte. Ends where one of them gives
// false. False as well when the file cannot be read, or is no longer what it was.
bool each_entry(const avi::File& file, const AviChunks& chunks,
                const std::function<bool(const AVI_IndexEntity&)>& take,
                const std::function<bool(uint64_t)>& wrongPad);

} // namespace tools
