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
constexpr std::chrono::seconds RetryPause{5};

using Clock = std::chrono::steady_clock;

TSdv2Avi& job = g_tSdv2Avi;

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
    const auto since = std::chrono::floor<std::chrono::seconds>(Clock::now() - files.streamCame);
    const time_t start = files.streamStart + since.count();
    files.lock = std::make_shared<FileLock>();
    if (!take_name(files.name, files.directory, start, *files.lock, why)) return false;

    const std::string part = files.name.part_name();
    if (StartRecord(0, part.c_str(), 1) != 0) {
        why = part + ": cannot be opened";
        unlink(part.c_str());
        return false;
    }
    files.room = {fileno(job.m_fsRec), 0};
    files.opened = Clock::now();
    files.cut = false;
    return true;
}

// As it is on the disk.
void close_file(const AviFiles& files)
{
    fclose(job.m_fsRec);
    job.m_fsRec = nullptr;
    release_room(files.name.part_name());
}

void stall(AviFiles& files, const std::string& why)
{
    files.nextTry = Clock::now() + RetryPause;
    if (files.trouble.empty()) {
        files.trouble = why;
        files.stalled();
    }
}

// Behind trouble there is to be room for more than a few frames: a disk that is all but full would else be
// filled with very short files.
bool begin_file(AviFiles& files, bool key)
{
    const bool again = !files.trouble.empty();
    if (again && (!key || Clock::now() < files.nextTry)) return false;
    std::string why;
    const bool opened = open_file(files, why);
    if (opened && (!again || reserve_start(files.room, why))) return true;
    if (opened) {
        close_file(files);
        unlink(files.name.part_name().c_str());
    }
    stall(files, why);
    return false;
}

FinishedFile torn_file(AviFiles& files)
{
    const S_FileHeader& header = job.m_Header;
    const AviHints hints = {header.Width,     header.Height,        header.FrameRate,
                            job.m_iHaveAudio, header.SamplesPerSec, header.AChannels};
    return {files.name, pictures_recorded(), conversion_report(), hints, std::move(files.lock)};
}

// A stop would now write an index of chunks that are not there.
void give_up_file(AviFiles& files, const std::string& why)
{
    const FinishedFile file = torn_file(files);
    close_file(files);
    if (file.report.u64FramesRecorded)
        files.finished(file);
    else
        unlink(files.name.part_name().c_str());
    stall(files, files.name.part_name() + ": " + why);
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

// Audio that joins a file which was laid out without it.
bool write_audio_note()
{
    const uint32_t note = late_audio_note(job.m_iHaveAudio, job.m_Header.AChannels);
    return pwrite(fileno(job.m_fsRec), &note, sizeof(note), LateAudioAt) == sizeof(note);
}

// A file without any frame yet is never full.
bool is_full(const AviFiles& files)
{
    if (!job.m_fsRec || !job.m_bWriteHead) return false;
    const auto age = Clock::now() - files.opened;
    return files.cut || is_index_full() || file_size() >= files.maxSize ||
           (files.maxTime.count() > 0 && age >= files.maxTime);
}

// False, and errno, when the disk did not take it.
bool push_frame(std::span<uint8_t> frame)
{
    const bool first = !job.m_bWriteHead;
    const bool silent = job.m_iHaveAudio == 0;
    errno = 0;
    RecordAviEx(frame.data(), int(frame.size()));
    if (conversion_report().u64FramesNotWritten) return false;
    if (!job.m_bWriteHead) return true;
    if (first) return write_first_headers();
    return !silent || job.m_iHaveAudio == 0 || write_audio_note();
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
    files.streamCame = Clock::now();
    files.notWritten = 0;
    files.index = {};
}

void record_frame(AviFiles& files, std::span<uint8_t> frame)
{
    const bool key = is_key_frame(frame);
    if (key && is_full(files)) finish_file(files);
    if (!job.m_fsRec && !begin_file(files, key)) {
        ++files.notWritten;
        return;
    }
    std::string why;
    if (!reserve_room(files.room, file_size() + most_added(frame), why)) {
        ++files.notWritten;
        finish_file(files);
        return stall(files, files.name.part_name() + ": there is no room for more: " + why);
    }
    frame = bound_index(files.index, frame);
    if (frame.empty()) return;
    if (!push_frame(frame)) {
        why = "cannot be written: " + std::string(errno ? strerror(errno) : "the disk did not take it");
        files.notWritten += conversion_report().u64FramesNotWritten;
        return give_up_file(files, why);
    }
    if (files.trouble.empty() || !job.m_bWriteHead) return;
    files.resumed();
    files.trouble.clear();
}

void cut_file(AviFiles& files)
{
    files.cut = job.m_fsRec && job.m_bWriteHead;
}

void finish_file(AviFiles& files)
{
    if (!job.m_fsRec) return;
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
        return;
    }
    if (trouble == 2) log_msg("frames were left out: no key frame came before the file was 4 GiB long");
    FinishedFile file = torn_file(files);
    if (trouble != 1) file.torn.reset();
    files.finished(file);
    if (trouble == 1) stall(files, part + ": its end cannot be written");
}

int pictures_recorded()
{
    return job.m_iTotalFrames - job.m_iAudioFrames;
}

} // namespace tools
