// AVI files, one behind the other, from the frames of one stream, by the library's streaming calls.
#pragma once

#include "Quorlin.h"
#include "avi_hints.h"
#include "disk_room.h"
#include "index_bound.h"
#include "losses.h"
#include "recording_name.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace tools {

// Of the format's 4 GiB: what is left is room to wait for a key frame.
constexpr uint64_t LargestAvi = 4'000'000'000;

// Still under its part name.
struct FinishedFile
{
    RecordingName name;
    int pictures = 0;
    SdvReport report{};
    std::optional<AviHints> torn;   // the disk did not take all of it: a repair is to finish it, with these
    std::shared_ptr<FileLock> lock; // until it has its name
};

// A file begins with a key frame that can be deciphered: what comes before it could not be played. The first
// one behind one of the limits begins a new file. The time is that of our clock, as it is for
// the files' names: a camera's time stamps may stand still or jump, and then a file would never end.
//
// When the disk takes no more, the open file is finished as far as it goes. From then on the first key frame
// of every few seconds tries a new one; frames are counted meanwhile, and lost.
struct AviFiles
{
    std::string directory;
    uint64_t maxSize = LargestAvi;
    std::chrono::seconds maxTime{}; // 0: any
    bool cut = false;               // see cut_file()
    std::function<void(const FinishedFile& file)> finished;
    std::function<void()> stalled; // `trouble` has begun
    std::function<void()> resumed; // it is over, and a new file is open

    time_t streamStart = 0;                           // see start_of()
    std::chrono::steady_clock::time_point streamCame; // the same moment by our own clock

    RecordingName name; // of the open file
    std::shared_ptr<FileLock> lock;
    IndexBound index;
    std::chrono::steady_clock::time_point opened;
    DiskRoom room;

    Why trouble; // why no file can be written; without a text as long as one can
    std::chrono::steady_clock::time_point nextTry;

    uint64_t recorded = 0; // frames of this stream, and what of it is in no file
    Losses losses;
    SdvReport counted{}; // of the open file, and already among these
};

// Is nothing written at the moment, since the disk takes nothing?
bool is_stalled(const AviFiles& files);

// The library's job has its m_Header; the stream begins now.
void begin_stream(AviFiles& files);

// Record one frame, in a new file where it is time for one.
void record_frame(AviFiles& files, std::span<uint8_t> frame);

// The next key frame begins a new file, if one is open.
void cut_file(AviFiles& files);

// Finish the open file, if there is one. One without any frame goes.
void finish_file(AviFiles& files);

// Of the open file, or of the last one.
int pictures_recorded();

// The bytes that the open file would have, if it ended here, and the most that a frame adds, its index
// entries among it.
uint64_t file_size();
uint64_t most_added(std::span<const uint8_t> frame);

bool is_key_frame(std::span<const uint8_t> frame);

} // namespace tools
