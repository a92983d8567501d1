// The frames of a recording on disk and what lies between them, found as a conversion finds them. Of any
// file, whatever its size, a few MiB are in memory at a time, and every byte is looked at a few times at
// most.
#pragma once

#include "CommonFun.h"
#include "sdv_start.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace sdv {

struct RecordingFile
{
    int fd = -1;
    uint64_t size = 0;
    S_FileHeader header{};
    uint64_t begin = sizeof(S_FileHeader); // where frames may begin: sooner where the header is lost
    std::string borrowed;                  // the recording whose header that is; empty: its own

    RecordingFile() = default;
    ~RecordingFile();
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
};

enum class Opened
{
    Fine,
    Unreadable,
    NoRecording
};

// Anything but Fine: the reason, with the file's name, in `why`, and in `code` as cli::cause. The header of
// `like` stands in for one that is lost.
Opened open_recording(RecordingFile& file, const std::string& path, const Like& like, std::string& why,
                      const char*& code);
Opened open_recording(RecordingFile& file, const std::string& path, std::string& why);

enum class Cipher
{
    Plain,
    Opened,
    NoKey,
    WrongKey
};

// What a conversion does with a frame.
enum class Fate
{
    Recorded,
    BeforeKeyFrame,
    Numbered0,
    NoKey,
    WrongKey,
    Inconsistent // its parts do not lie within it
};
constexpr size_t Fates = 6;

struct ScannedFrame
{
    uint64_t offset;
    std::span<const uint8_t> bytes; // header and payload, deciphered when the key fits; for this call only
    S_FrameHeader header;           // of mode 11, which has other headers, nothing but the size is filled in
    Cipher cipher;
    Fate fate;
};

enum class Cause
{
    Noise,        // or what is left of a frame whose header is gone
    Zeros,        // never written
    Erased,       // bytes FF, as erased flash memory has them
    BadHeader,    // a frame header whose sizes do not add up
    MissingBytes, // the frame in front of the place reaches into the next one
    CutOff,       // a last frame that is not whole
    Unreadable    // the disk fails, there or in parts of it
};

// Do the parts that its header declares lie within the frame? Only one behind a frame numbered 0, which
// nobody has searched for, can be otherwise.
bool is_consistent(const ScannedFrame& frame);

// Bytes that belong to no frame, or cannot be read.
struct Gap
{
    uint64_t offset;
    uint64_t length;
    Cause cause;
    uint64_t unreadable = 0; // of its bytes
    bool inFrame = false;    // of the frame that came last, which has zeros there
};

struct ScanCalls
{
    std::function<void(const ScannedFrame&)> frame;
    std::function<void(const Gap&)> gap;
    std::function<void(uint64_t)> read{}; // up to there; where a disk fails, after every block
};

// Everything behind the file header, front to back. Recordings of the modes 31, 32 and 11, which cannot be
// converted as files, are taken apart as pushed streams are. The key (empty: none) and the file header become
// those of the library's one job. What cannot be read counts as zeros; false, and how much that was in `why`,
// when there is any.
bool scan_frames(const RecordingFile& file, std::span<const uint8_t> key, const ScanCalls& calls,
                 std::string& why);

} // namespace sdv
