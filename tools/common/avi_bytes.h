// Reading an AVI file: its bytes, its numbers, its chunk headers.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace avi {

constexpr uint32_t VideoHeaderArea = 212; // what lies in front of the movi list
constexpr uint32_t AudioHeaderArea = 316;
constexpr uint64_t SizeLimit = uint64_t{1} << 32;

constexpr uint32_t fcc(const char (&text)[5])
{
    return uint32_t{uint8_t(text[0])} | uint32_t{uint8_t(text[1])} << 8 | uint32_t{uint8_t(text[2])} << 16 |
           uint32_t{uint8_t(text[3])} << 24;
}

// A little-endian number of up to 4 bytes.
uint32_t load(const uint8_t* at, size_t size);

// A regular file, open for reading; fd is -1, and errno the reason, when it is none. Once `stop` is set,
// nothing can be read of it any more, so that every walk through it ends soon.
struct File
{
    int fd = -1;
    uint64_t length = 0;
    const std::atomic<bool>* stop = nullptr;

    explicit File(const std::string& path, const std::atomic<bool>* toStop = nullptr);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;
};

bool is_stopped(const File& file);

// Bytes read at an offset; fewer than asked for at the end of the file or after an error.
size_t read_at(const File& file, uint64_t offset, uint8_t* to, size_t count);

// Small forward reads without a system call each.
struct Window
{
    const File& file;
    std::array<uint8_t, 4096> bytes{};
    uint64_t begin = 0;
    size_t held = 0;
    bool failed =
        false; // bytes that the file holds could not be read: what follows from that is worth nothing

    explicit Window(const File& of) : file(of) {}
};

// `count` bytes at that offset, NULL when the file does not hold them. Valid until the next call.
const uint8_t* look(Window& window, uint64_t offset, size_t count);

// 0 for bytes that cannot be read.
uint32_t look_word(Window& window, uint64_t offset);

struct Head
{
    uint32_t id, size;
    uint64_t end; // of the chunk with its pad byte
};

bool is_stream(uint32_t id); // of a chunk of the video or audio stream

// The chunk header at that offset. False when the file does not hold it.
bool read_head(Window& window, uint64_t at, Head& head);

} // namespace avi
