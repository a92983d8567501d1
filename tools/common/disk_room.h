// Room on the disk, taken before it is needed, so that a file that grows can always be finished.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

struct DiskRoom
{
    int fd = -1;           // of the file that grows
    uint64_t reserved = 0; // its first bytes, which the disk has promised to hold
};

// See to it that the file can grow to `size` bytes. False, and the reason in `why`, when the disk, a quota or
// the limit on file sizes does not let it; what was promised before still stands.
bool reserve_room(DiskRoom& room, uint64_t size, std::string& why);

// The same for as much as makes it worth to begin a file where there was no room before.
bool reserve_start(DiskRoom& room, std::string& why);

// Give back what was promised beyond the file's end.
void release_room(const std::string& path);

} // namespace tools
