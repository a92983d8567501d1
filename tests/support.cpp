#include "support.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

TempDir::TempDir()
{
    path = (std::filesystem::temp_directory_path() / "quorlin-XXXXXX").string();
    if (!mkdtemp(path.data())) abort();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void write_file(const std::string& path, const Bytes& bytes)
{
    unlink(path.c_str()); // emptying a file instead can make the file system wait for its disk
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(out.flush()) << path;
}

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

uint64_t file_size(const std::string& path)
{
    std::error_code none;
    const uintmax_t size = std::filesystem::file_size(path, none);
    return none ? 0 : size;
}

bool exists(const std::string& path)
{
    std::error_code unknown; // what lies in a closed directory counts as missing
    return std::filesystem::exists(std::filesystem::symlink_status(path, unknown));
}

char* text(const std::string& path)
{
    return const_cast<char*>(path.c_str());
}

Bytes bytes_of(std::initializer_list<Word> list)
{
    Bytes bytes;
    for (const Word& word : list)
        for (size_t i = 0; i < word.size; ++i) bytes.push_back(uint8_t(word.value >> 8 * i));
    return bytes;
}

Bytes with(Bytes bytes, size_t offset, const Word& word)
{
    for (size_t i = 0; i < word.size; ++i) bytes.at(offset + i) = uint8_t(word.value >> 8 * i);
    return bytes;
}

Bytes part(const Bytes& bytes, size_t from, size_t to)
{
    return Bytes(bytes.begin() + long(from), bytes.begin() + long(std::min(to, bytes.size())));
}

Bytes operator+(Bytes left, const Bytes& right)
{
    sdv::append(left, right);
    return left;
}

Bytes hex(const std::string& digits)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

Bytes noise(size_t size, uint32_t seed)
{
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = uint8_t((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

bool all_zero(const void* record, size_t size)
{
    return memcmp(record, Bytes(size).data(), size) == 0;
}

testing::AssertionResult same_bytes(const Bytes& got, const Bytes& want)
{
    if (got == want) return testing::AssertionSuccess();
    const auto [at, other] = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
    return testing::AssertionFailure()
           << got.size() << " bytes for " << want.size() << ", another one at " << at - got.begin();
}

std::string written_to(int fd, const std::function<void()>& work)
{
    fflush(nullptr);
    FILE* catcher = tmpfile();
    const int before = dup(fd);
    if (!catcher || before < 0) abort();
    dup2(fileno(catcher), fd);
    work();
    fflush(fd == 1 ? stdout : stderr);
    dup2(before, fd);
    close(before);

    std::string caught;
    char piece[4096];
    rewind(catcher);
    while (size_t got = fread(piece, 1, sizeof(piece), catcher)) caught.append(piece, got);
    fclose(catcher);
    return caught;
}

Told told(int fd, const std::function<long()>& work)
{
    Told result;
    result.second = written_to(fd, [&] { result.first = work(); });
    return result;
}

int in_child(const std::function<int()>& work)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) _exit(work());

    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void limit_files(uint64_t size)
{
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {rlim_t(size), RLIM_INFINITY};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

void two_at_once(const std::function<void(int)>& work)
{
    std::barrier start(2);
    const auto body = [&](int who) {
        start.arrive_and_wait();
        work(who);
    };
    std::thread other(body, 1);
    body(0);
    other.join();
}

sdv::FrameFields picture(uint32_t number, size_t videoSize, uint8_t type)
{
    sdv::FrameFields frame;
    frame.number = number;
    frame.type = type;
    frame.video = noise(videoSize, number);
    std::replace(frame.video.begin(), frame.video.end(), uint8_t(0), uint8_t(0x5A));
    for (size_t i = 0; i < std::min<size_t>(videoSize, 4); ++i) frame.video[i] = i == 3;
    return frame;
}

sdv::FrameFields with_audio(sdv::FrameFields frame, uint8_t code, std::vector<Bytes> before,
                            std::vector<Bytes> after)
{
    frame.audioCode = code;
    frame.audioBefore = std::move(before);
    frame.audioAfter = std::move(after);
    return frame;
}

Bytes recording(const Frames& frames, const sdv::FileFields& file)
{
    sdv::FileFields header = file;
    header.frameCount = uint32_t(frames.size());
    Bytes bytes = sdv::file_header(header);
    for (const sdv::FrameFields& frame : frames) sdv::append(bytes, sdv::frame(frame));
    return bytes;
}

Job::Job(const sdv::FileFields& header)
{
    Initialize(8000);
    memcpy(&g_tSdv2Avi.m_Header, sdv::file_header(header).data(), sizeof(S_FileHeader));
}

void push_frame(Bytes frame)
{
    EXPECT_EQ(RecordAvi(frame.data(), int(frame.size())), 0);
}

void push_in_pieces(const Bytes& bytes, size_t size)
{
    for (size_t at = 0; at < bytes.size(); at += size) {
        Bytes piece = part(bytes, at, at + size);
        ASSERT_EQ(RecordAviEx(piece.data(), int(piece.size())), 0);
    }
}

Outcome convert(const std::string& in, const std::string& out)
{
    const auto [result, said] = told(1, [&] { return KtConvert_SDVtoAVI(text(in), text(out)); });
    const int progress = GetConversionProgress(nullptr);
    EXPECT_TRUE(result ? progress < SdvProgress_None : progress == g_tSdv2Avi.m_iPosition) << progress;
    return {int(result), g_tSdv2Avi.m_iPosition, said};
}

avi::Report expect_sound(const std::string& path)
{
    const avi::Report report = avi::check_file(path);
    EXPECT_TRUE(report.sound()) << path << '\n' << avi::describe(report);
    return report;
}

std::vector<avi::Chunk> sound_chunks(const std::string& path)
{
    std::vector<avi::Chunk> chunks;
    expect_sound(path);
    avi::check_file(path, {.each = [&chunks](const avi::Chunk& chunk) { chunks.push_back(chunk); }});
    return chunks;
}

void expect_chunks(const std::string& path, const std::vector<Chunk>& want)
{
    const std::vector<avi::Chunk> chunks = sound_chunks(path);
    ASSERT_EQ(chunks.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(chunks[i].id, want[i].id);
        EXPECT_EQ(chunks[i].key, want[i].key);
        EXPECT_TRUE(same_bytes(avi::chunk_bytes(path, chunks[i]), want[i].data));
    }
}

void expect_video(const std::string& path, const Frames& frames)
{
    std::vector<Chunk> want;
    for (const sdv::FrameFields& frame : frames) want.push_back({"00dc", frame.video, frame.type == 0});
    expect_chunks(path, want);
}
