// What the tests share: temporary files, captured texts, small recordings, and the check of every AVI made.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Quorlin.h"
#include "avi_check.h"
#include "sdv_build.h"

using sdv::Bytes;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline const bool sanitized = true;
#else
inline const bool sanitized = false;
#endif

// A fresh directory that goes away with everything in it.
struct TempDir
{
    std::string path;

    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

void write_file(const std::string& path, const Bytes& bytes);
Bytes read_file(const std::string& path);
uint64_t file_size(const std::string& path);
bool exists(const std::string& path);
char* text(const std::string& path); // for calls that take char* and only read

uint32_t number_at(const Bytes& bytes, size_t offset, size_t size = 4); // little-endian
Bytes hex(const std::string& digits);
Bytes noise(size_t size, uint32_t seed);

// What work writes to a descriptor (1 or 2), buffered text included.
std::string written_to(int fd, const std::function<void()>& work);

// The exit status of work in a forked child; 128 and the signal when one ended it.
int in_child(const std::function<int()>& work);

// Two threads that call work(0) and work(1) as nearly at once as a barrier allows.
void two_at_once(const std::function<void(int)>& work);

// A frame whose video begins with a start code and holds no further zero byte.
sdv::FrameFields picture(uint32_t number, size_t videoSize = 100, uint8_t type = 1);
Bytes recording(const std::vector<sdv::FrameFields>& frames, const sdv::FileFields& file = {});

// A prepared job for a stream with that header.
struct Job
{
    explicit Job(const sdv::FileFields& header = {});
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    ~Job() { QuorlinRelease(); }
};

struct Outcome
{
    int result, position;
    std::string text;
    bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

Outcome convert(const std::string& in, const std::string& out);

struct Chunk
{
    std::string id;
    Bytes data;
    bool key;
};
Chunk video_chunk(const sdv::FrameFields& frame);
std::vector<Chunk> video_chunks(const std::vector<sdv::FrameFields>& frames);

// The AVI file is sound; and it holds exactly these chunks.
avi::Report expect_sound(const std::string& path);
void expect_chunks(const std::string& path, const std::vector<Chunk>& want);
