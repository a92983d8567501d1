#include "avi_parts.h"
#include "frame_cutter.h"
#include "sdv_scan.h"

#include "Quorlin.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace tools {
namespace {

TSdv2Avi& job = g_tSdv2Avi;

// Where we are in the recording, and where the next frame should begin.
struct Place
{
    uint64_t read;
    uint64_t expected = sizeof(S_FileHeader);
};

void note_gap(SdvReport& report, Place& place, uint64_t end)
{
    if (end <= place.expected) return; // of a file, the first frame may begin in the file header
    if (report.u64Gaps++ == 0) report.u64FirstGap = place.expected;
    report.u64BytesSkipped += end - place.expected;
}

// What the library skips is nothing here: it is given whole frames only.
void add_counts(SdvReport& sum, const SdvReport& part)
{
    sum.u64FramesRecorded += part.u64FramesRecorded;
    sum.u64DroppedNumber0 += part.u64DroppedNumber0;
    sum.u64DroppedNoKey += part.u64DroppedNoKey;
    sum.u64DroppedWrongKey += part.u64DroppedWrongKey;
    sum.u64DroppedInconsistent += part.u64DroppedInconsistent;
    sum.u64FramesNotWritten += part.u64FramesNotWritten;
}

bool open_part(AviParts& parts, std::string& why)
{
    TempOutput& file = parts.files.emplace_back();
    if (!create_temp(file, parts.target, why, parts.rights)) {
        parts.outputError = errno;
        return false;
    }
    const int fd = open(file.path.c_str(), O_RDWR | O_CLOEXEC);
    const bool opened = StartRecord(0, library_path(file.path, fd).c_str(), 1) == 0;
    why = file.target + ": cannot be opened";
    if (fd >= 0) close(fd);
    if (!opened) return false;
    parts.firstPictures.push_back(parts.pictures);
    parts.room = {fileno(job.m_fsRec), 0};
    parts.groupStart = file_size();
    return true;
}

bool finish_part(AviParts& parts, std::string& why)
{
    if (!job.m_fsRec) return true;
    const bool recorded = job.m_bWriteHead;
    const int trouble = StopRecordEx(0);
    add_counts(parts.report, conversion_report());
    release_room(parts.files.back().path);
    why = parts.target + ": cannot be written whole";
    if (trouble == 1) return false;
    if (trouble == 2)
        parts.losses.push_back("frames were left out: no key frame came before the file was 4 GiB long");
    if (recorded) {
        parts.pictures += uint64_t(pictures_recorded());
    } else {
        parts.files.pop_back();
        parts.firstPictures.pop_back();
    }
    return true;
}

// The next group is taken to be no larger than the largest so far.
bool is_full(const AviParts& parts)
{
    return job.m_fsRec && job.m_bWriteHead &&
           (file_size() + parts.largestGroup > parts.limits.bytes ||
            uint64_t(pictures_recorded()) >= parts.limits.pictures);
}

bool begin_group(AviParts& parts, std::string& why)
{
    if (job.m_fsRec) {
        parts.largestGroup = std::max(parts.largestGroup, file_size() - parts.groupStart);
        parts.groupStart = file_size();
    }
    if (is_full(parts) && !finish_part(parts, why)) return false;
    return job.m_fsRec || open_part(parts, why);
}

bool push_frame(AviParts& parts, std::span<uint8_t> frame, std::string& why)
{
    if (is_key_frame(frame) && !begin_group(parts, why)) return false;
    if (!reserve_room(parts.room, file_size() + most_added(frame), why)) {
        parts.outputError = errno;
        why = parts.target + ": cannot be written: " + why;
        return false;
    }
    RecordAvi(frame.data(), int(frame.size())); // no other thread is at work on the job
    return true;
}

void count_number(AviParts& parts, std::span<const uint8_t> frame)
{
    constexpr int Mpeg4Mode = 11; // its frames have other headers
    sdv::ScannedFrame scanned{0, frame, {}, {}, {}};
    memcpy(&scanned.header, frame.data(), sizeof(scanned.header));
    if (job.m_Header.Mode != Mpeg4Mode && sdv::is_consistent(scanned))
        sdv::add_number(parts.numbers, scanned.header.u32FrameNO);
}

bool push_frames(AviParts& parts, sdv::FrameCutter& cutter, Place& place, std::string& why)
{
    for (;;) {
        const auto frame =
            parts.asFile ? sdv::take_file_frame(cutter) : sdv::take_frame(cutter, job.m_Header.Mode);
        if (frame.empty()) return true;
        count_number(parts, frame);
        if (!job.m_fsRec && !is_key_frame(frame)) continue;
        const uint64_t end = place.read - (cutter.end - cutter.begin);
        note_gap(parts.report, place, end - frame.size());
        place.expected = end;
        if (!push_frame(parts, frame, why)) return false;
    }
}

// A stream that breaks ends there.
size_t read_piece(int fd, uint64_t at, std::span<uint8_t> room, AviParts& parts)
{
    if (parts.input.fd >= 0) return rescue_at(parts.input, at, room);
    ssize_t got;
    do got = read(fd, room.data(), room.size());
    while (got < 0 && errno == EINTR);
    if (got >= 0) return size_t(got);
    parts.input.error = errno;
    return 0;
}

Pushed push_all(int fd, AviParts& parts, std::atomic<uint32_t>& kib, std::string& why)
{
    sdv::FrameCutter cutter;
    Place place{parts.asFile ? 0 : sizeof(S_FileHeader)};
    if (!parts.ahead.empty()) {
        place.read = parts.ahead.size();
        std::copy(parts.ahead.begin(), parts.ahead.end(), sdv::piece_room(cutter).begin());
        sdv::add_piece(cutter, parts.ahead.size());
    }
    begin_rescue(parts.input, fd, place.read);
    while (const size_t got = read_piece(fd, place.read, sdv::piece_room(cutter), parts)) {
        sdv::add_piece(cutter, got);
        place.read += got;
        kib = uint32_t(place.read >> 10);
        if (!push_frames(parts, cutter, place, why)) return Pushed::no_output;
    }
    while (sdv::skip_torn(cutter))
        if (!push_frames(parts, cutter, place, why)) return Pushed::no_output;
    const bool begun = job.m_fsRec;
    note_gap(parts.report, place, place.read);
    parts.report.u64BytesUnreadable = parts.input.lostBytes;
    parts.report.u64FramesMissing = parts.numbers.missing;
    parts.report.u64NumberGaps = parts.numbers.gaps;
    if (parts.input.lostBytes) parts.report.u64FirstUnreadable = parts.input.lost.begin()->first;
    if (!finish_part(parts, why)) return Pushed::no_output;
    return begun ? Pushed::all : Pushed::no_key_frame;
}

} // namespace

Pushed push_recording(int fd, const S_FileHeader& header, AviParts& parts, std::atomic<uint32_t>& kib,
                      std::string& why)
{
    Initialize(8000);
    if (!job.m_pStreamBuf) return Pushed::no_memory;
    job.m_Header = header;
    CompleteFileHeader(&job.m_Header);
    const Pushed outcome = push_all(fd, parts, kib, why);
    QuorlinRelease();
    return outcome;
}

std::string library_path(const std::string& path, int fd)
{
    if (path.size() < sizeof(job.m_szInputPath) || fd < 0) return path;
    return "/proc/self/fd/" + std::to_string(fd);
}

} // namespace tools
