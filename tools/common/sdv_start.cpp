#include "sdv_start.h"

#include "cause.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace sdv {
namespace {

constexpr size_t HeaderSize = sizeof(S_FrameHeader);
constexpr size_t Looked = 4 << 20; // twice the largest frame: one that is whole begins in there
constexpr uint32_t Flags[] = {0x02000000, 0x03000000, 0x04000000};
constexpr int AnyMode = 21; // all modes but MPEG-4's test a header in the same way

size_t read_all(int fd, int64_t at, std::span<uint8_t> room)
{
    size_t held = 0;
    while (held < room.size()) {
        const ssize_t got = pread(fd, &room[held], room.size() - held, off_t(at + int64_t(held)));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        held += size_t(got);
    }
    return held;
}

// The size of the frame whose header that is; 0 for other bytes.
uint32_t frame_size(const uint8_t* at)
{
    S_FrameHeader header;
    memcpy(&header, at, sizeof(header));
    if (std::find(std::begin(Flags), std::end(Flags), header.u32FrameID) == std::end(Flags)) return 0;
    const bool valid = IsValidFrameHeader(reinterpret_cast<uint8_t*>(&header), AnyMode);
    return valid && header.u32FrameSize >= HeaderSize ? header.u32FrameSize : 0;
}

// Thirty-two bytes may look like a header by chance; another one where the frame ends does not.
std::optional<uint64_t> find_frame(int fd, int64_t base, std::span<const uint8_t> bytes)
{
    for (size_t at = 0; at + HeaderSize <= bytes.size(); ++at) {
        const uint32_t size = frame_size(&bytes[at]);
        if (!size) continue;
        uint8_t next[HeaderSize];
        const size_t got = read_all(fd, base + int64_t(at + size), next);
        if (got == 0 ? at + size == bytes.size() : got == HeaderSize && frame_size(next)) return at;
    }
    return std::nullopt;
}

uint32_t flag_at(std::span<const uint8_t> bytes, uint64_t at)
{
    uint32_t flag;
    memcpy(&flag, &bytes[size_t(at)], sizeof(flag));
    return flag;
}

bool is_file_header(std::span<const uint8_t> head)
{
    S_FileHeader header;
    if (head.size() < sizeof(header)) return false;
    memcpy(&header, head.data(), sizeof(header));
    return IsValidFileHeader(&header) && !frame_size(head.data()); // the first frame may look like one
}

} // namespace

Beginning look_at_start(int fd, int64_t base, std::span<const uint8_t> head)
{
    if (head.empty()) return {Start::Empty};
    if (is_file_header(head)) return {Start::Recording};
    if (base < 0) {
        const bool framed = head.size() >= HeaderSize && frame_size(head.data());
        return framed ? Beginning{Start::HeaderLost, 0, flag_at(head, 0)} : Beginning{};
    }
    std::vector<uint8_t> bytes(Looked);
    bytes.resize(read_all(fd, base, bytes));
    const auto at = find_frame(fd, base, bytes);
    return at ? Beginning{Start::HeaderLost, *at, flag_at(bytes, *at)} : Beginning{};
}

const char* start_text(Start start)
{
    switch (start) {
    case Start::HeaderLost:
        return "its file header is lost, but there are frames: --like GOOD.sdv takes the header of another "
               "recording of the same camera";
    case Start::Empty:
        return "is empty";
    default:
        return "is no SDV recording";
    }
}

const char* start_code(Start start)
{
    switch (start) {
    case Start::HeaderLost:
        return cli::cause::HeaderLost;
    case Start::Empty:
        return cli::cause::EmptyFile;
    default:
        return cli::cause::NoRecording;
    }
}

bool read_like(const std::string& path, Like& like, std::string& why)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    uint8_t head[sizeof(S_FileHeader)];
    errno = 0;
    const size_t held = fd < 0 ? 0 : read_all(fd, 0, head);
    why = path + ": " + (errno ? strerror(errno) : "has no file header to take");
    if (fd >= 0) close(fd);
    if (!is_file_header({head, held})) return false;
    like.path = path;
    memcpy(&like.header, head, sizeof(head));
    return true;
}

bool borrow_header(const Like& like, const Beginning& beginning, S_FileHeader& header, std::string& why)
{
    const int mode = like.header.Mode;
    if (uint32_t(GetFrameFlagByMode(mode)) != beginning.flag) {
        why = "its file header is lost, and that of " + like.path + " is of another kind: its mode, " +
              std::to_string(mode) + ", has other frames";
        return false;
    }
    header = {};
    header.FrameRate = like.header.FrameRate;
    header.Width = like.header.Width;
    header.Height = like.header.Height;
    header.Mode = like.header.Mode;
    header.bAudio = like.header.bAudio;
    header.AChannels = like.header.AChannels;
    header.BitsPerSample = like.header.BitsPerSample;
    header.SamplesPerSec = like.header.SamplesPerSec;
    return true;
}

std::string borrowed_text(const std::string& from)
{
    return "its file header is lost: mode, frame rate, picture size and audio format are taken from " + from;
}

} // namespace sdv
