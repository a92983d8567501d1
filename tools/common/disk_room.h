// Room on the disk, taken before it is needed, so that a file that grows can always be finished.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tools {

struct DiskRoom
{
    int fd = -1;           // of the file that grows
    uint64_t reserved = 0; // its first bytes, which the disk has promised to hold
};

// See to it that the file can grow to `size` bytes. False, errno, and the reason in `why`, when the disk, a
// quota or the limit on file sizes does not let it; what was promised before still stands.
bool reserve_room(DiskRoom& room, uint64_t size, std::string& why);

// The same for as much as makes it worth to begin a file where there was no room before.
bool reserve_start(DiskRoom& room, std::string& why);

// Bytes that are free for us on the disk of this directory; nothing when it cannot be told.
std::optional<uint64_t> free_room(const std::string& directory);

// The word for an error number that writing gave: DiskFull or CannotWrite of cause.h.
const char* write_cause(int error);

// Give back what was promised beyond the file's end.
void release_room(const std::string& path);

} // namespace tools
