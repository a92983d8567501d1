// Names of recordings: by their start, numbered where several start in one second, never an older file's.
#pragma once

#include "CommonFun.h"
#include "file_lock.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace tools {

// The header's start as seconds of its own clock, whatever time zone that is in; nothing when it is no date
// that a camera can mean.
std::optional<time_t> start_of(const S_FileHeader& header);

// The local time of this moment, in seconds of the same kind.
time_t local_now();

// Seconds of that kind as a name: "20260309-140559".
std::string date_name(time_t start);

struct RecordingName
{
    std::string stem; // directory and date, "DIR/20260309-140559"
    int number = 1;   // of the name among those of the same second

    std::string final_name() const; // "DIR/20260309-140559.avi", "DIR/20260309-140559-2.avi"
    std::string part_name() const;  // with ".part" behind it
};

// Take a name that nobody has: its part file is made, empty, and locked, which keeps a repair away from it
// until it has its final name. False, and the reason in `why`.
bool take_name(RecordingName& name, const std::string& directory, time_t start, FileLock& lock,
               std::string& why);

// Give the part file, which is on the disk, its final name, or the next number's when somebody has taken that
// meanwhile. False, errno, and the reason in `why`.
bool publish_name(RecordingName& name, std::string& why);

} // namespace tools
