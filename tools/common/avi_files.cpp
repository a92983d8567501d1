#include "avi_files.h"

#include "Quorlin.h"

#include <algorithm>
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

// What the finished file would have, if it ended here.
uint64_t file_size()
{
    return uint64_t(ftello(job.m_fsRec)) + uint64_t(job.m_iTotalFrames) * EntrySize + HeaderRoom;
}

// At most so much does a frame add, its index entries among it. Of audio, 7 bytes may be a chunk.
uint64_t most_added(std::span<const uint8_t> frame)
{
    S_FrameHeader header;
    memcpy(&header, frame.data(), sizeof(header));
    const uint64_t slots = (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
    const uint64_t chunks = 1 + std::min<uint64_t>(slots * (1 + header.u16AFrameSize / 7u), frame.size());
    return frame.size() + chunks * (sizeof(AVI_FrameHeader) + 1 + EntrySize);
}

bool open_file(AviFiles& files, std::string& why)
{
    const time_t start = files.streamStart + seconds_now() - files.streamCame;
    if (!take_name(files.name, files.directory, start, why)) return false;

    const std::string part = files.name.part_name();
    why = part + ": cannot be opened";
    if (StartRecord(0, part.c_str(), 1) != 0) return false;
    files.room = {fileno(job.m_fsRec), 0};
    return true;
}

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

} // namespace

void begin_stream(AviFiles& files)
{
    complete_header(job.m_Header);
    files.streamStart = start_of(job.m_Header).value_or(local_now());
    files.streamCame = seconds_now();
}

bool record_frame(AviFiles& files, std::span<uint8_t> frame, std::string& why)
{
    const bool full = job.m_fsRec && job.m_bWriteHead && file_size() >= files.maxSize;
    if (full && is_key_frame(frame) && !finish_file(files, why)) return false;
    if (!job.m_fsRec && !open_file(files, why)) return false;

    if (!reserve_room(files.room, file_size() + most_added(frame), why)) {
        why = files.name.part_name() + ": there is no room for more: " + why;
        return false;
    }
    RecordAviEx(frame.data(), int(frame.size()));
    return true;
}

bool finish_file(AviFiles& files, std::string& why)
{
    if (!job.m_fsRec) return true;
    const bool recorded = job.m_bWriteHead;
    const int trouble = StopRecordEx(0);
    const std::string part = files.name.part_name();
    release_room(part);
    if (!recorded) {
        log_msg("nothing could be recorded (an encrypted stream needs its key)");
        unlink(part.c_str());
        return true;
    }
    why = part + ": could not be written whole, and may not play";
    if (trouble == 1) return false;
    if (trouble == 2) log_msg("frames were left out: no key frame came before the file was 4 GiB long");
    if (!publish_name(files.name, why)) return false;
    files.finished(files.name.final_name(), pictures_recorded());
    return true;
}

int pictures_recorded()
{
    return job.m_iTotalFrames - job.m_iAudioFrames;
}

} // namespace tools
