// What the tests share: temporary files, captured texts, small recordings, and the check of every AVI made.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Quorlin.h"
#include "avi_check.h"
#include "sdv_build.h"

using sdv::Bytes;
using Frames = std::vector<sdv::FrameFields>;

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
uint64_t file_size(const std::string& path); // 0 for none
bool exists(const std::string& path);        // also as a dangling link
char* text(const std::string& path);         // for calls that take char* and only read

// A FourCC, or a little-endian number.
struct Word
{
    uint32_t value = 0;
    size_t size = 4;

    Word(const char* four) { memcpy(&value, four, 4); }
    Word(uint32_t number, size_t bytes = 4) : value(number), size(bytes) {}
    Word(int number) : value(uint32_t(number)) {}
};
inline Word half(uint32_t number)
{
    return Word(number, 2);
}
Bytes bytes_of(std::initializer_list<Word> list);
template <typename... Words>
Bytes words(const Words&... list)
{
    return bytes_of({Word(list)...});
}
Bytes with(Bytes bytes, size_t offset, const Word& word);
Bytes part(const Bytes& bytes, size_t from, size_t to); // up to to, which may lie behind the end
Bytes operator+(Bytes left, const Bytes& right);
Bytes hex(const std::string& digits);
Bytes noise(size_t size, uint32_t seed);
bool all_zero(const void* record, size_t size);
testing::AssertionResult same_bytes(const Bytes& got, const Bytes& want);

// What work writes to a descriptor (1 or 2), buffered text included; and together with its result.
std::string written_to(int fd, const std::function<void()>& work);
using Told = std::pair<long, std::string>;
Told told(int fd, const std::function<long()>& work);

// The exit status of work in a forked child, 128 and the signal when one ended it.
int in_child(const std::function<int()>& work);

// No file of this process grows beyond it; to be called in a child.
void limit_files(uint64_t size);

// Two threads that call work(0) and work(1) as nearly at once as a barrier allows.
void two_at_once(const std::function<void(int)>& work);

// A frame whose video begins with a start code and holds no further zero byte.
sdv::FrameFields picture(uint32_t number, size_t videoSize = 100, uint8_t type = 1);
sdv::FrameFields with_audio(sdv::FrameFields frame, uint8_t code, std::vector<Bytes> before,
                            std::vector<Bytes> after);
Bytes recording(const Frames& frames, const sdv::FileFields& file = {});

// A prepared job for a stream with that header; and one that records to a file.
struct Job
{
    explicit Job(const sdv::FileFields& header = {});
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    ~Job() { QuorlinRelease(); }
};
struct Recording
{
    TempDir dir;
    Job job;
    const std::string path = dir / "a.avi";

    explicit Recording(const sdv::FileFields& header = {}) : job(header)
    {
        EXPECT_EQ(StartRecord(0, path.c_str(), 1), 0);
    }
};

// Recorded as a frame; and pushed as a camera's stream. Both are taken.
void push_frame(Bytes frame);
void push_in_pieces(const Bytes& bytes, size_t size);

using Outcome = std::tuple<int, int, std::string>; // result, m_iPosition, standard output
inline const Outcome done = {0, 100, ""}, noHeader = {-1, 0, "140217====3333TC_SDVtoAVI error"},
                     noKeyFrame = {0, -4, "140217====8888"};
Outcome convert(const std::string& in, const std::string& out);

struct Chunk
{
    std::string id;
    Bytes data;
    bool key;
};

// The AVI file is sound; and it holds exactly these chunks, or the video of these frames.
avi::Report expect_sound(const std::string& path);
std::vector<avi::Chunk> sound_chunks(const std::string& path);
void expect_chunks(const std::string& path, const std::vector<Chunk>& want);
void expect_video(const std::string& path, const Frames& frames);
