// One AVI file, or as many parts as it takes, from the frames of one recording, by the library's streaming
// calls. Each part begins with a key frame, so that it plays by itself, and all appear under their names
// together.
#pragma once

#include "avi_files.h"
#include "frame_numbers.h"
#include "report_text.h"
#include "rescue_read.h"
#include "temp_output.h"

#include <atomic>
#include <deque>

namespace tools {

// What a part holds at most: where the first group of pictures would pass that, the next part begins. A group
// that is larger by itself is not cut.
struct PartLimits
{
    uint64_t bytes = LargestAvi;
    uint64_t pictures = UINT64_MAX;
};

struct AviParts
{
    std::string target; // for their temporary names
    mode_t rights = 0666;
    PartLimits limits;
    bool asFile = false; // frames are found as in a file conversion, and the input begins with its header
    std::vector<uint8_t> ahead; // the input's first bytes, where they are no header: they may be of a frame
    std::deque<TempOutput> files;
    std::vector<uint64_t> firstPictures; // of each file, counted from the recording's start
    uint64_t pictures = 0;
    SdvReport report{};              // of them all
    std::vector<std::string> losses; // that the report does not count, in words
    RescueRead input;                // what could not be read
    sdv::FrameNumbers numbers;       // of all frames
    int outputError = 0;             // with no_output, where a call failed

    DiskRoom room;
    uint64_t groupStart = 0, largestGroup = 0; // bytes from one key frame to the next
};

enum class Pushed
{
    all,
    no_key_frame,
    no_memory,
    no_output
};

// Push what can be read behind the file header; of a file, what cannot counts as zeros. `kib` follows the
// bytes read. Whatever comes before the first key frame is skipped. With no_output the reason is in `why`.
Pushed push_recording(int fd, const S_FileHeader& header, AviParts& parts, std::atomic<uint32_t>& kib,
                      std::string& why);

// A path that the library takes: the file's own, or a short one for the open file `fd` where that is too
// long.
std::string library_path(const std::string& path, int fd);

} // namespace tools
