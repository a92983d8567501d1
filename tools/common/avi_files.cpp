#include "avi_files.h"

#include "report_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace tools {
namespace {

constexpr uint64_t HeaderRoom = 1024; // more than all headers that are written at the stop
constexpr uint64_t EntrySize = sizeof(AVI_IndexEntity);

TSdv2Avi& job = g_tSdv2Avi;

time_t seconds_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

} // namespace

uint64_t file_size()
{
    return uint64_t(ftello(job.m_fsRec)) + uint64_t(job.m_iTotalFrames) * EntrySize + HeaderRoom;
}

// Of audio, 7 bytes may be a chunk.
uint64_t most_added(std::span<const uint8_t> frame)
{
    S_FrameHeader header;
    memcpy(&header, frame.data(), sizeof(header));
    const uint64_t slots = (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
    const uint64_t chunks = 1 + std::min<uint64_t>(slots * (1 + header.u16AFrameSize / 7u), frame.size());
    return frame.size() + chunks * (sizeof(AVI_FrameHeader) + 1 + EntrySize);
}

namespace {

bool open_file(AviFiles& files, std::string& why)
{
    const time_t start = files.streamStart + seconds_now() - files.streamCame;
    files.lock = std::make_shared<FileLock>();
    if (!take_name(files.name, files.directory, start, *files.lock, why)) return false;

    const std::string part = files.name.part_name();
    why = part + ": cannot be opened";
    if (StartRecord(0, part.c_str(), 1) != 0) return false;
    files.room = {fileno(job.m_fsRec), 0};
    files.opened = std::chrono::steady_clock::now();
    files.cut = false;
    return true;
}

// A file that is never finished can be repaired when something tells what is in it. False when there is no
// way back behind its chunks: the next one would overwrite the headers.
bool write_first_headers()
{
    const off_t end = ftello(job.m_fsRec);
    const AVI_MediaType type = job.m_iHaveAudio ? AVI_VideoAndAudio : AVI_Video;
    AVI_WriteFileHeader({job.m_Header.Width, job.m_Header.Height, 0, 0, 0}, type);
    AVI_WriteMoviHeader(sizeof(FOURCC), type);
    return end >= 0 && fseeko(job.m_fsRec, end, SEEK_SET) == 0;
}

// A file without any frame yet is never full.
bool is_full(const AviFiles& files)
{
    if (!job.m_fsRec || !job.m_bWriteHead) return false;
    const auto age = std::chrono::steady_clock::now() - files.opened;
    return files.cut || is_index_full() || file_size() >= files.maxSize ||
           (files.maxTime.count() > 0 && age >= files.maxTime);
}

} // namespace

bool is_key_frame(std::span<const uint8_t> frame)
{
    return frame[offsetof(S_FrameHeader, u8FrameType)] == 0;
}

void complete_header(S_FileHeader& header)
{
    if (header.AChannels == 0 || header.AChannels == 255) header.AChannels = 1;
    if (header.BitsPerSample == 0 || header.BitsPerSample == 255) header.BitsPerSample = 16;
    if (header.SamplesPerSec == 0 || header.SamplesPerSec == UINT32_MAX) header.SamplesPerSec = 8000;
}

void begin_stream(AviFiles& files)
{
    complete_header(job.m_Header);
    files.streamStart = start_of(job.m_Header).value_or(local_now());
    files.streamCame = seconds_now();
    files.index = {};
}

bool record_frame(AviFiles& files, std::span<uint8_t> frame, std::string& why)
{
    if (is_key_frame(frame) && is_full(files) && !finish_file(files, why)) return false;
    if (!job.m_fsRec && !open_file(files, why)) return false;

    if (!reserve_room(files.room, file_size() + most_added(frame), why)) {
        why = files.name.part_name() + ": there is no room for more: " + why;
        return false;
    }
    frame = bound_index(files.index, frame);
    if (frame.empty()) return true;
    const bool first = !job.m_bWriteHead;
    RecordAviEx(frame.data(), int(frame.size()));
    if (!first || !job.m_bWriteHead || write_first_headers()) return true;
    why = files.name.part_name() + ": cannot be written: " + strerror(errno);
    return false;
}

void cut_file(AviFiles& files)
{
    files.cut = job.m_fsRec && job.m_bWriteHead;
}

bool finish_file(AviFiles& files, std::string& why)
{
    if (!job.m_fsRec) return true;
    const bool recorded = job.m_bWriteHead;
    const SdvReport report = conversion_report();
    const bool encrypted = report.u64DroppedNoKey || report.u64DroppedWrongKey;
    const int trouble = StopRecordEx(0);
    const std::string part = files.name.part_name();
    release_room(part);
    if (!recorded) {
        log_msg(encrypted ? "nothing could be recorded: the stream is encrypted and needs its key"
                          : "nothing could be recorded");
        unlink(part.c_str());
        files.lock.reset();
        return true;
    }
    why = part + ": could not be written whole, and may not play";
    if (trouble == 1) return false;
    if (trouble == 2) log_msg("frames were left out: no key frame came before the file was 4 GiB long");
    files.finished({files.name, pictures_recorded(), conversion_report(), std::move(files.lock)});
    return true;
}

int pictures_recorded()
{
    return job.m_iTotalFrames - job.m_iAudioFrames;
}

} // namespace tools
