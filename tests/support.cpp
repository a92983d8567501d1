#include "support.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "quorlin-XXXXXX").string();
    if (!mkdtemp(pattern.data())) abort();
    path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void write_file(const std::string& path, const Bytes& bytes)
{
    std::error_code ignored;
    std::filesystem::remove(path, ignored); // emptying a file instead can make the file system wait for its disk
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.flush()) << path;
}

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

uint64_t file_size(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

bool exists(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

char* text(const std::string& path)
{
    return const_cast<char*>(path.c_str());
}

uint32_t number_at(const Bytes& bytes, size_t offset, size_t size)
{
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) value |= uint32_t(bytes.at(offset + i)) << (8 * i);
    return value;
}

Bytes hex(const std::string& digits)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

Bytes noise(size_t size, uint32_t seed)
{
    Bytes bytes(size);
    for (uint8_t& byte : bytes) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
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

int in_child(const std::function<int()>& work)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) _exit(work());

    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void two_at_once(const std::function<void(int)>& work)
{
    pthread_barrier_t start;
    pthread_barrier_init(&start, nullptr, 2);
    const auto body = [&](int who) {
        pthread_barrier_wait(&start);
        work(who);
    };
    std::thread other(body, 1);
    body(0);
    other.join();
    pthread_barrier_destroy(&start);
}

sdv::FrameFields picture(uint32_t number, size_t videoSize, uint8_t type)
{
    sdv::FrameFields frame;
    frame.number = number;
    frame.type = type;
    frame.video = noise(videoSize, number);
    for (size_t i = 0; i < videoSize; ++i) {
        if (i < 4)
            frame.video[i] = i == 3;
        else if (frame.video[i] == 0)
            frame.video[i] = 0x5A;
    }
    return frame;
}

Bytes recording(const std::vector<sdv::FrameFields>& frames, const sdv::FileFields& file)
{
    sdv::FileFields header = file;
    header.frameCount = static_cast<uint32_t>(frames.size());
    Bytes bytes = sdv::file_header(header);
    for (const sdv::FrameFields& frame : frames) sdv::append(bytes, sdv::frame(frame));
    return bytes;
}

Job::Job(const sdv::FileFields& header)
{
    Initialize(8000);
    const Bytes bytes = sdv::file_header(header);
    memcpy(&g_tSdv2Avi.m_Header, bytes.data(), bytes.size());
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << outcome.result << ", " << outcome.position << ", \"" << outcome.text << "\"";
}

Outcome convert(const std::string& in, const std::string& out)
{
    Outcome outcome = {};
    outcome.text = written_to(1, [&] { outcome.result = KtConvert_SDVtoAVI(text(in), text(out)); });
    outcome.position = g_tSdv2Avi.m_iPosition;
    return outcome;
}

Chunk video_chunk(const sdv::FrameFields& frame)
{
    return {"00dc", frame.video, frame.type == 0};
}

std::vector<Chunk> video_chunks(const std::vector<sdv::FrameFields>& frames)
{
    std::vector<Chunk> chunks;
    for (const sdv::FrameFields& frame : frames) chunks.push_back(video_chunk(frame));
    return chunks;
}

avi::Report expect_sound(const std::string& path)
{
    const avi::Report report = avi::check_file(path);
    EXPECT_TRUE(report.sound()) << path << '\n' << avi::describe(report);
    return report;
}

void expect_chunks(const std::string& path, const std::vector<Chunk>& want)
{
    const avi::Report report = expect_sound(path);
    ASSERT_EQ(report.chunks.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(report.chunks[i].id, want[i].id) << "chunk " << i;
        EXPECT_EQ(report.chunks[i].key, want[i].key) << "chunk " << i;
        EXPECT_TRUE(avi::chunk_bytes(path, report.chunks[i]) == want[i].data)
            << "chunk " << i << ", " << report.chunks[i].size << " bytes for " << want[i].data.size();
    }
}
