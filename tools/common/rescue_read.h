// Reading recordings from cards and disks that fail. What cannot be read counts as zeros, in blocks of 4 KiB
// as rescue tools take them, and what lies behind it is read on.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

namespace tools {

struct RescueRead
{
    int fd = -1;
    uint64_t begin = 0; // where the recording's first byte lies in the file
    uint64_t size = 0;  // of the recording

    std::map<uint64_t, uint64_t> lost{}; // stretches that cannot be read: where each begins and ends
    uint64_t lostBytes = 0;
    int error = 0;        // of the first read that failed
    bool failing = false; // the last block could not be read
};

// For a file that can be sought; false for any other. The recording's first `taken` bytes have been read.
bool begin_rescue(RescueRead& from, int fd, uint64_t taken);

// Read at a place of the recording: at least one byte, and 0 at its end. A block that fails is all that one
// call tries, so that the caller can tell how far it is.
size_t rescue_at(RescueRead& from, uint64_t at, std::span<uint8_t> room);

// Bytes of it among those from `at` to `end` that could not be read.
uint64_t lost_between(const RescueRead& from, uint64_t at, uint64_t end);

// "4096 bytes at 81920 could not be read: Input/output error"; empty when all could. An error without any
// bytes is one behind which nothing can be had, as on a pipe.
std::string describe_lost(const RescueRead& from);

} // namespace tools
