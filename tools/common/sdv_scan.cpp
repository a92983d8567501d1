#include "sdv_scan.h"

#include "Quorlin.h"
#include "cause.h"
#include "rescue_read.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sdv {
namespace {

constexpr size_t HeaderSize = sizeof(S_FrameHeader);
constexpr size_t WindowSize = 6 << 20; // several times the largest frame
constexpr uint64_t LargestFileFrame = 1 << 20;
constexpr int Mpeg4Mode = 11;

struct Rules
{
    int mode;
    bool converted; // as a file; else only as a stream that is pushed
    uint32_t flag;
    uint32_t flagMask;
};

struct Scan
{
    const RecordingFile& file;
    const ScanCalls& calls;
    Rules rules;
    std::vector<uint8_t> window;
    uint64_t windowStart = 0;
    tools::RescueRead input{};
    uint64_t frameStart = 0, frameEnd = 0;
};

Rules rules_of(int mode)
{
    const bool mpeg4 = mode == Mpeg4Mode;
    return {mode, mode == 21 || mode == 41, uint32_t(GetFrameFlagByMode(mode)),
            mpeg4 ? 0x00FCFFFF : 0xFFFFFFFF};
}

void load(Scan& scan, uint64_t at)
{
    size_t held = 0;
    scan.window.resize(WindowSize);
    while (held < WindowSize && at + held < scan.file.size) {
        const size_t got = tools::rescue_at(scan.input, at + held, std::span(scan.window).subspan(held));
        if (!got) break;
        held += got;
        if (scan.calls.read) scan.calls.read(at + held);
    }
    scan.window.resize(held);
    scan.windowStart = at;
}

// What is in memory from `at` on: `wanted` bytes and more, or what the file still has.
std::span<uint8_t> view(Scan& scan, uint64_t at, size_t wanted)
{
    const uint64_t windowEnd = scan.windowStart + scan.window.size();
    const bool held = at >= scan.windowStart && at + wanted <= windowEnd;
    if (!held && (at < scan.windowStart || windowEnd < scan.file.size)) load(scan, at);
    const uint64_t skip = std::min<uint64_t>(at - scan.windowStart, scan.window.size());
    return std::span(scan.window).subspan(size_t(skip));
}

bool has_flag(const uint8_t* at, const Rules& rules)
{
    uint32_t flag;
    memcpy(&flag, at, sizeof(flag));
    return (flag & rules.flagMask) == rules.flag;
}

bool begins_frame(uint8_t* at, const Rules& rules)
{
    if (!has_flag(at, rules)) return false;
    if (rules.converted) return IsValidFrmHeader(at);
    return IsValidFrameHeader(at, rules.mode) && GetFrameSize(at, rules.mode) >= int(HeaderSize);
}

// The first place from `from` on, of `starts` ones, where a flag may be; `starts` when there is none.
size_t next_candidate(std::span<uint8_t> bytes, size_t from, size_t starts, const Rules& rules)
{
    if (rules.mode == Mpeg4Mode) return from;
    // The flag's last byte is the rare one, so it leads from candidate to candidate.
    const uint8_t* behind = &bytes[sizeof(rules.flag) - 1];
    const void* last = memchr(behind + from, int(rules.flag >> 24), starts - from);
    return last ? size_t(static_cast<const uint8_t*>(last) - behind) : starts;
}

// The first frame header from `at` on that begins before `end`; `end` when there is none.
uint64_t seek_frame(Scan& scan, uint64_t at, uint64_t end, bool keyOnly = false)
{
    while (at < end) {
        const auto bytes = view(scan, at, HeaderSize);
        if (bytes.size() < HeaderSize) return end;
        const size_t starts = size_t(std::min<uint64_t>(bytes.size() - HeaderSize + 1, end - at));
        for (size_t i = 0; i < starts; ++i) {
            i = next_candidate(bytes, i, starts, scan.rules);
            if (i < starts && begins_frame(&bytes[i], scan.rules) &&
                (!keyOnly || bytes[i + offsetof(S_FrameHeader, u8FrameType)] == 0))
                return at + i;
        }
        at += starts;
    }
    return end;
}

bool is_filled(Scan& scan, uint64_t at, uint64_t end, uint8_t with)
{
    while (at < end) {
        auto bytes = view(scan, at, 1);
        bytes = bytes.first(size_t(std::min<uint64_t>(bytes.size(), end - at)));
        if (bytes.empty() || bytes[0] != with) return false;
        if (memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) != 0) return false;
        at += bytes.size();
    }
    return true;
}

Cause cause_of(Scan& scan, uint64_t from, uint64_t end)
{
    if (tools::lost_between(scan.input, from, end)) return Cause::Unreadable;
    if (is_filled(scan, from, end, 0)) return Cause::Zeros;
    if (is_filled(scan, from, end, 0xFF)) return Cause::Erased;

    const auto bytes = view(scan, from, HeaderSize);
    const bool flag = end - from >= 4 && bytes.size() >= 4 && has_flag(bytes.data(), scan.rules);
    const bool header = flag && bytes.size() >= HeaderSize && begins_frame(bytes.data(), scan.rules);
    if (header && end < scan.file.size) return Cause::MissingBytes;
    if (flag) return header || end - from < HeaderSize ? Cause::CutOff : Cause::BadHeader;

    const bool behindFrame = scan.frameEnd == from;
    if (behindFrame && seek_frame(scan, scan.frameStart + 1, from) < from) return Cause::MissingBytes;
    return Cause::Noise;
}

void note_gap(Scan& scan, uint64_t from, uint64_t end)
{
    from = std::max<uint64_t>(from, scan.file.begin);
    if (from >= end) return;
    const Cause cause = cause_of(scan, from, end); // has all of it looked at
    scan.calls.gap({from, end - from, cause, tools::lost_between(scan.input, from, end)});
}

// The frame is found, and kept with zeros in these places.
void note_lost_parts(Scan& scan, uint64_t from, uint64_t end)
{
    auto place = scan.input.lost.upper_bound(from);
    if (place != scan.input.lost.begin()) --place;
    for (; place != scan.input.lost.end() && place->first < end; ++place) {
        const uint64_t first = std::max(from, place->first), last = std::min(end, place->second);
        if (first < last) scan.calls.gap({first, last - first, Cause::Unreadable, last - first, true});
    }
}

Cipher decipher(std::span<uint8_t> frame)
{
    switch (CA_DecryptFrame(frame.data(), int(frame.size()), 0)) {
    case 0:
        return Cipher::Opened;
    case -2:
        return Cipher::NoKey;
    case -4:
        return Cipher::WrongKey;
    }
    return Cipher::Plain;
}

Fate fate_of(const ScannedFrame& frame, const Rules& rules, bool leading)
{
    if (leading) return Fate::BeforeKeyFrame;
    if (rules.mode == Mpeg4Mode) return Fate::Recorded;
    if (frame.header.u32FrameNO == 0) return Fate::Numbered0;
    if (frame.cipher == Cipher::NoKey) return Fate::NoKey;
    if (frame.cipher == Cipher::WrongKey) return Fate::WrongKey;
    return is_consistent(frame) ? Fate::Recorded : Fate::Inconsistent;
}

void take_frame(Scan& scan, uint64_t at, std::span<uint8_t> bytes, bool leading)
{
    ScannedFrame frame{at, bytes, {}, Cipher::Plain, Fate::Recorded};
    if (scan.rules.mode == Mpeg4Mode)
        frame.header.u32FrameSize = uint32_t(bytes.size());
    else
        memcpy(&frame.header, bytes.data(), HeaderSize);
    frame.cipher = decipher(bytes);
    frame.fate = fate_of(frame, scan.rules, leading);
    scan.calls.frame(frame);
    scan.frameStart = at;
    scan.frameEnd = at + bytes.size();
}

uint64_t frame_size(Scan& scan, uint64_t at)
{
    const auto bytes = view(scan, at, HeaderSize);
    if (bytes.size() < HeaderSize) return UINT64_MAX;
    return uint32_t(GetFrameSize(bytes.data(), scan.rules.mode));
}

void walk(Scan& scan, uint64_t at, uint64_t end, bool leading)
{
    uint64_t gapStart = at;
    bool search = true;
    while (at < end) {
        const uint64_t start = search ? seek_frame(scan, at, end) : at;
        if (end - start < HeaderSize) break;
        const uint64_t size = frame_size(scan, start);
        // Only a header behind a frame numbered 0 can be like this: nobody has tested it.
        if (!search && (size < HeaderSize || size > LargestFileFrame)) {
            at = start + 1;
            search = true;
            continue;
        }
        // The last frame is cut off, or only seems so: whole ones may lie behind its header.
        if (size > end - start) {
            at = start + 1;
            search = true;
            continue;
        }
        note_gap(scan, gapStart, start);
        const auto bytes = view(scan, start, size_t(size));
        if (bytes.size() < size) return; // the file has become shorter
        S_FrameHeader header;
        memcpy(&header, bytes.data(), sizeof(header));
        take_frame(scan, start, bytes.first(size_t(size)), leading);
        if (tools::lost_between(scan.input, start, start + size)) note_lost_parts(scan, start, start + size);
        at = gapStart = start + size;
        // A conversion takes whatever follows a frame numbered 0 for a frame.
        search = leading || !scan.rules.converted || header.u32FrameNO != 0;
    }
    note_gap(scan, gapStart, end);
}

} // namespace

RecordingFile::~RecordingFile()
{
    if (fd >= 0) close(fd);
}

Opened open_recording(RecordingFile& file, const std::string& path, const Like& like, std::string& why,
                      const char*& code)
{
    struct stat status;
    code = cli::cause::CannotRead;
    file.fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); // a pipe must not make us wait
    if (file.fd < 0 || fstat(file.fd, &status) < 0) {
        why = path + ": " + strerror(errno);
        return Opened::Unreadable;
    }
    if (!S_ISREG(status.st_mode)) {
        why = path + ": is no regular file";
        return Opened::Unreadable;
    }
    file.size = uint64_t(status.st_size);
    uint8_t head[sizeof(S_FileHeader)];
    const ssize_t got = pread(file.fd, head, sizeof(head), 0);
    if (got < 0) {
        why = path + ": " + strerror(errno);
        return Opened::Unreadable;
    }
    const Beginning beginning = look_at_start(file.fd, 0, {head, size_t(got)});
    code = start_code(beginning.start);
    if (beginning.start == Start::Recording) {
        memcpy(&file.header, head, sizeof(head));
        return Opened::Fine;
    }
    why = start_text(beginning.start);
    const bool borrows = beginning.start == Start::HeaderLost && !like.path.empty();
    if (borrows && borrow_header(like, beginning, file.header, why)) {
        file.begin = std::min<uint64_t>(beginning.firstFrame, sizeof(S_FileHeader));
        file.borrowed = like.path;
        return Opened::Fine;
    }
    why = path + ": " + why;
    return Opened::NoRecording;
}

Opened open_recording(RecordingFile& file, const std::string& path, std::string& why)
{
    const char* code = nullptr;
    return open_recording(file, path, {}, why, code);
}

bool is_consistent(const ScannedFrame& frame)
{
    const S_FrameHeader& header = frame.header;
    const uint64_t slots = (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
    return HeaderSize + slots * header.u16AFrameSize + header.u32VStreamLen <= frame.bytes.size();
}

bool scan_frames(const RecordingFile& file, std::span<const uint8_t> key, const ScanCalls& calls,
                 std::string& why)
{
    g_tSdv2Avi.m_Header = file.header;
    std::vector<uint8_t> copy(key.begin(), key.end());
    SetDecryptKey(copy.empty() ? nullptr : copy.data(), int(copy.size()));

    Scan scan{file, calls, rules_of(file.header.Mode), {}};
    scan.input.fd = file.fd;
    scan.input.size = file.size;
    const uint64_t behindHeader = file.begin;
    // The search of a conversion begins at the very start: the file header is scanned too.
    const uint64_t first = scan.rules.converted ? seek_frame(scan, 0, file.size, true) : behindHeader;
    walk(scan, behindHeader, first, true);
    walk(scan, first, file.size, false);
    why = tools::describe_lost(scan.input);
    return why.empty();
}

} // namespace sdv
