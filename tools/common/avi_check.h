// A strict check of an AVI file's structure: nesting, sizes, padding, counts, index against chunks. It knows
// the AVI format and what this product writes, and shares no code with the library that writes it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace avi {

struct Finding
{
    uint64_t offset; // where in the file
    std::string what;
    const char* code; // of cli::cause
};

struct Chunk
{
    std::string_view id; // "00dc" or "01wb"
    uint64_t offset;     // of its 8-byte header
    uint32_t size;       // data bytes, without pad byte
    bool key;            // from the index
};

struct Audio
{
    bool present = false;
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t length = 0; // stream header's dwLength
    std::vector<uint8_t> config;
};

enum class Kind
{
    avi,   // or what was to become one
    other, // no AVI file
    unreadable
};

struct Report
{
    Kind kind = Kind::avi;
    std::vector<Finding> findings; // empty: the file is sound
    std::vector<Finding> notes;    // what a sound file may have, and its owner should know
    uint32_t videoChunks = 0, audioChunks = 0;
    uint32_t width = 0, height = 0, rate = 0, videoLength = 0;
    uint32_t sampleRate = 0; // as the main header's data rate tells it, also without audio
    Audio audio;
    uint32_t reserved = 0;   // the main header's first reserved field
    uint64_t moviOffset = 0; // of the "movi" FourCC

    bool sound() const { return findings.empty(); }
};

struct Look
{
    // Also at what makes a file no less readable as a container: each video chunk that is not empty is to
    // begin with an H.264 start code, its key frame flag not to contradict its first slice, the rate to be
    // the video's own, and what the header takes over from the recording's to be such as players take.
    bool strict = false;
    std::function<void(const Chunk&)> each = {}; // is told of the chunks in file order; nothing keeps a list
};

// Check a file on disk. One that cannot be read, or not to its end, is a finding.
Report check_file(const std::string& path, const Look& look = {});

struct File;
Report check_file(const File& file, const Look& look = {});

// All findings, one a line.
std::string describe(const Report& report);

// The data bytes of one chunk.
std::vector<uint8_t> chunk_bytes(const std::string& path, const Chunk& chunk);

} // namespace avi
