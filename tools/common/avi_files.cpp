#include "avi_files.h"

#include "avi_bytes.h"
#include "avi_hints.h"
#include "files.h"

#include "report_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

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
    files.counted = {};
    if (!take_name(files.name, files.directory, start, *files.lock, why)) return false;

    const std::string part = files.name.part_name();
    errno = 0;
    if (StartRecord(0, part.c_str(), 1) != 0) {
        const int error = errno;
        why = part + ": cannot be opened";
        unlink(part.c_str());
        errno = error;
        return false;
    }
    files.room = {fileno(job.m_fsRec), 0};
    files.opened = Clock::now();
    files.cut = false;
    return true;
}

// As it is on the disk. 0, or why not all of it is there.
int close_file(const AviFiles& files)
{
    const int error = fclose(job.m_fsRec) == 0 ? 0 : errno;
    job.m_fsRec = nullptr;
    release_room(files.name.part_name());
    return error;
}

void stall(AviFiles& files, int error, const std::string& why)
{
    files.nextTry = Clock::now() + RetryPause;
    if (is_stalled(files)) return;
    files.trouble = {write_cause(error), why};
    files.stalled();
}

// Behind trouble there is to be room for more than a few frames: a disk that is all but full would else be
// filled with very short files.
bool begin_file(AviFiles& files)
{
    const bool again = is_stalled(files);
    if (again && Clock::now() < files.nextTry) return false;
    std::string why;
    const bool opened = open_file(files, why);
    if (opened && (!again || reserve_start(files.room, why))) return true;
    const int error = errno;
    if (opened) {
        close_file(files);
        unlink(files.name.part_name().c_str());
    }
    stall(files, error, why);
    return false;
}

FinishedFile torn_file(AviFiles& files)
{
    const S_FileHeader& header = job.m_Header;
    const AviHints hints = {header.Width,     header.Height,        header.FrameRate,
                            job.m_iHaveAudio, header.SamplesPerSec, header.AChannels};
    return {files.name, pictures_recorded(), conversion_report(), hints, std::move(files.lock)};
}

bool is_late_audio()
{
    const int video = int(avi::VideoHeaderArea + sizeof(AVI_FrameHeader));
    return job.m_iHaveAudio != 0 && job.m_iMoviBeginPos == video;
}

// A stop would move all chunks up, to make room for the headers of the audio stream: for long, with everybody
// waiting, and a kill would leave a file that nobody can put together. The publisher writes a new one.
void finish_later(AviFiles& files)
{
    const FinishedFile file = torn_file(files);
    const int error = close_file(files);
    files.finished(file);
    if (error) stall(files, error, files.name.part_name() + ": its end cannot be written");
}

// A stop would now write an index of chunks that are not there.
void give_up_file(AviFiles& files, int error)
{
    const std::string what = error ? strerror(error) : "the disk did not take it";
    const FinishedFile file = torn_file(files);
    close_file(files);
    if (file.report.u64FramesRecorded)
        files.finished(file);
    else
        unlink(files.name.part_name().c_str());
    stall(files, error, files.name.part_name() + ": cannot be written: " + what);
}

// A file that is never finished can be repaired when something tells what is in it. So the headers come
// before the first frame, which decides whether there is an audio stream.
bool write_first_headers(std::span<const uint8_t> frame)
{
    const int named = frame[offsetof(S_FrameHeader, u8ACoder)];
    const S_FileHeader& header = job.m_Header;
    SdvAviHeader values{};
    values.cbSize = sizeof(values);
    values.u32Width = header.Width;
    values.u32Height = header.Height;
    values.u32FrameRate = header.FrameRate;
    values.u32AudioCode = uint32_t(job.m_iHaveAudio || !is_audio_code(named) ? job.m_iHaveAudio : named);
    values.u32AudioChannels = header.AChannels;
    values.u32AudioRate = header.SamplesPerSec;
    values.u32MoviSize = sizeof(FOURCC);
    std::array<uint8_t, avi::AudioHeaderArea + sizeof(AVI_MoviHeader)> bytes;
    const int size = BuildAviHeader(&values, bytes.data(), int(bytes.size()));
    return size > 0 && write_at(fileno(job.m_fsRec), 0, std::span(bytes).first(size_t(size)));
}

// Audio that joins a file which was laid out without it.
bool write_audio_note()
{
    const uint32_t note = late_audio_note(job.m_iHaveAudio, job.m_Header.AChannels);
    return write_at(fileno(job.m_fsRec), LateAudioAt,
                    {reinterpret_cast<const uint8_t*>(&note), sizeof(note)});
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
    if (first && !write_first_headers(frame)) return false;
    RecordAviEx(frame.data(), int(frame.size()));
    if (conversion_report().u64FramesNotWritten) return false;
    return first || !silent || job.m_iHaveAudio == 0 || write_audio_note();
}

// What became of the frame that the library got. A file that is as long as one can be takes no frame, and
// counts none, until a key frame comes.
void count_frame(AviFiles& files, size_t size)
{
    constexpr struct
    {
        uint64_t SdvReport::*count;
        Loss loss;
    } drops[] = {{&SdvReport::u64DroppedNoKey, Loss::no_key},
                 {&SdvReport::u64DroppedWrongKey, Loss::wrong_key},
                 {&SdvReport::u64DroppedNumber0, Loss::number_0},
                 {&SdvReport::u64DroppedInconsistent, Loss::inconsistent},
                 {&SdvReport::u64FramesNotWritten, Loss::not_written}};
    const SdvReport now = conversion_report();
    const SdvReport before = std::exchange(files.counted, now);
    files.recorded += now.u64FramesRecorded - before.u64FramesRecorded;
    for (const auto& [count, loss] : drops)
        if (now.*count != before.*count) return lose_frames(files.losses, loss, 1, size);
    if (now.u64FramesRecorded == before.u64FramesRecorded)
        lose_frames(files.losses, Loss::no_key_frame, 1, size);
}

// Headers alone show nothing.
bool has_key_picture(std::span<const uint8_t> frame)
{
    S_FrameHeader header;
    memcpy(&header, frame.data(), sizeof(header));
    return is_key_frame(frame) && header.u32VStreamLen > 0;
}

// See to it that a file is open which can take this frame; else why there is none.
std::optional<Loss> find_file(AviFiles& files, std::span<const uint8_t> frame)
{
    const bool key = has_key_picture(frame);
    if (job.m_fsRec && !(key && is_full(files))) return std::nullopt;
    const auto loss = foreseen_loss(frame);
    if (loss) return job.m_fsRec ? std::nullopt : loss;
    if (key) finish_file(files);
    if (key && begin_file(files)) return std::nullopt;
    return is_stalled(files) ? Loss::not_written : Loss::no_key_frame;
}

} // namespace

bool is_stalled(const AviFiles& files)
{
    return !files.trouble.text.empty();
}

bool is_key_frame(std::span<const uint8_t> frame)
{
    return frame[offsetof(S_FrameHeader, u8FrameType)] == 0;
}

void begin_stream(AviFiles& files)
{
    CompleteFileHeader(&job.m_Header);
    files.streamStart = start_of(job.m_Header).value_or(local_now());
    files.streamCame = Clock::now();
    files.recorded = 0;
    files.losses = {};
    files.index = {};
}

void record_frame(AviFiles& files, std::span<uint8_t> frame)
{
    const size_t size = frame.size();
    if (const auto loss = find_file(files, frame)) return lose_frames(files.losses, *loss, 1, size);
    std::string why;
    if (!reserve_room(files.room, file_size() + most_added(frame), why)) {
        const int error = errno;
        lose_frames(files.losses, Loss::not_written, 1, size);
        finish_file(files);
        return stall(files, error, files.name.part_name() + ": there is no room for more: " + why);
    }
    frame = bound_index(files.index, frame);
    if (frame.empty()) return lose_frames(files.losses, Loss::no_key_frame, 1, size);
    const bool pushed = push_frame(frame);
    const int error = errno;
    count_frame(files, size);
    if (!pushed) return give_up_file(files, error);
    if (!is_stalled(files) || !job.m_bWriteHead) return;
    files.resumed();
    files.trouble = {};
}

void cut_file(AviFiles& files)
{
    files.cut = job.m_fsRec && job.m_bWriteHead;
}

void finish_file(AviFiles& files)
{
    if (!job.m_fsRec) return;
    const bool recorded = job.m_bWriteHead;
    if (recorded && is_late_audio()) return finish_later(files);
    errno = 0;
    const int trouble = StopRecordEx(0);
    const int error = errno;
    const std::string part = files.name.part_name();
    release_room(part);
    if (!recorded) {
        unlink(part.c_str());
        files.lock.reset();
        return;
    }
    FinishedFile file = torn_file(files);
    if (trouble != 1) file.torn.reset();
    files.finished(file);
    if (trouble == 1) stall(files, error, part + ": its end cannot be written");
}

int pictures_recorded()
{
    return job.m_iTotalFrames - job.m_iAudioFrames;
}

} // namespace tools
