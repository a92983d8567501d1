// AVI files, one behind the other, from the frames of one stream, by the library's streaming calls.
#pragma once

#include "disk_room.h"
#include "recording_name.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tools {

// Of the format's 4 GiB: what is left is room to wait for a key frame.
constexpr uint64_t LargestAvi = 4'000'000'000;

struct AviFiles
{
    std::string directory;
    uint64_t maxSize = LargestAvi; // the first key frame behind so many bytes begins a new file
    std::function<void(const std::string& path, int pictures)> finished;

    time_t streamStart = 0; // see start_of()
    time_t streamCame = 0;  // the same moment by our own clock, in seconds

    RecordingName name; // of the open file
    DiskRoom room;
};

// The library's job has its m_Header; the stream begins now.
void begin_stream(AviFiles& files);

// Record one frame, in a new file where it is time for one. False, and the reason in `why`, when that cannot
// be done; the file is then still to be finished, for which there is room.
bool record_frame(AviFiles& files, std::span<uint8_t> frame, std::string& why);

// Finish the open file, if there is one. One without any frame goes. False, and the reason in `why`, when it
// is not whole: it keeps its part name.
bool finish_file(AviFiles& files, std::string& why);

// Of the open file, or of the last one.
int pictures_recorded();

} // namespace tools
