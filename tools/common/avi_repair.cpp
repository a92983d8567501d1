#include "avi_repair.h"

#include "avi_check.h"
#include "avi_chunks.h"
#include "file_lock.h"
#include "files.h"
#include "human.h"
#include "temp_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int CodeAac = 22;
constexpr uint32_t MoviHeader = sizeof(AVI_MoviHeader);
constexpr size_t Block = 1u << 20;

// Everything of the finished file but its chunks, and its index, which follows from them.
struct Ending
{
    AviChunks chunks;
    Bytes headers; // up to the first chunk
};

using Sink = std::function<bool(std::span<const uint8_t>)>;

template <typename Record>
void append_record(Bytes& bytes, const Record& record)
{
    const auto* begin = reinterpret_cast<const uint8_t*>(&record);
    bytes.insert(bytes.end(), begin, begin + sizeof(record));
}

bool fail(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

// ---- what is known

// A layout with room for an audio stream has one, even if no audio came.
bool has_audio(const AviChunks& chunks)
{
    return chunks.audio > 0 || chunks.area == avi::AudioHeaderArea;
}

bool complete_hints(const avi::Report& report, const AviChunks& chunks, AviHints& hints, std::string& why)
{
    add_hints(hints, hints_of_torn_avi(report));
    add_hints(hints, hints_of_sps(chunks.sps));
    if (!hints.width || !hints.height) return fail(why, "the video does not tell its picture size");
    if (!hints.rate) return fail(why, "the video does not tell how many pictures a second it has");
    if (!has_audio(chunks)) hints.audioCode = 0;
    if (!hints.audioCode || (has_audio(chunks) && *hints.audioCode == 0))
        return fail(why, "there is audio, and nothing tells its coding");
    if (*hints.audioCode == CodeAac && !hints.audioRate)
        return fail(why, "there is AAC, and nothing tells its sample rate");
    add_hints(hints, {.audioRate = 8000, .channels = 1});
    return true;
}

// ---- headers and index

// The library's builders take what they write from its job, which is put back as it was.
struct JobGuard
{
    TSdv2Avi& job = g_tSdv2Avi;
    FILE* file = job.m_fsRec;
    S_FileHeader header = job.m_Header;
    int32_t code = job.m_iHaveAudio, dest = job.m_iDestType, total = job.m_iTotalFrames,
            audio = job.m_iAudioFrames, rate = job.m_iAudioSampleRate;

    JobGuard() = default;
    JobGuard(const JobGuard&) = delete;
    JobGuard& operator=(const JobGuard&) = delete;
    ~JobGuard()
    {
        job.m_fsRec = file;
        job.m_Header = header;
        job.m_iHaveAudio = code;
        job.m_iDestType = dest;
        job.m_iTotalFrames = total;
        job.m_iAudioFrames = audio;
        job.m_iAudioSampleRate = rate;
    }
};

void set_job(TSdv2Avi& job, const AviChunks& chunks, const AviHints& hints)
{
    job.m_Header.FrameRate = uint16_t(*hints.rate);
    job.m_Header.AChannels = uint8_t(*hints.channels);
    job.m_iHaveAudio = *hints.audioCode;
    job.m_iDestType = *hints.audioCode == CodeAac;
    job.m_iTotalFrames = int32_t(chunks.pictures + chunks.audio);
    job.m_iAudioFrames = int32_t(chunks.audio);
    job.m_iAudioSampleRate = int32_t(*hints.audioRate);
}

uint32_t entries_size(const AviChunks& chunks)
{
    return uint32_t(sizeof(AVI_IndexEntity)) * (chunks.pictures + chunks.audio);
}

bool write_index(const avi::File& file, const AviChunks& chunks, const Sink& sink,
                 const std::function<bool(uint64_t)>& setPad)
{
    Bytes block;
    append_record(block, AVI_IndexHeader{avi::fcc("idx1"), entries_size(chunks)});
    const auto add = [&block, &sink](const AVI_IndexEntity& entry) {
        append_record(block, entry);
        if (block.size() < Block) return true;
        const bool written = sink(block);
        block.clear();
        return written;
    };
    return each_entry(file, chunks, add, setPad) && sink(block);
}

bool build_headers(const AviHints& hints, uint32_t area, Ending& ending)
{
    const AviChunks& chunks = ending.chunks;
    const uint64_t riff =
        chunks.end + (area - chunks.area) + sizeof(AVI_IndexHeader) + entries_size(chunks) - 8;
    const uint64_t end = chunks.end + (area - chunks.area);
    const AVI_Header summary = {int32_t(*hints.width), int32_t(*hints.height), int32_t(chunks.pictures),
                                int32_t(uint32_t(riff)), int32_t(chunks.largest)};
    ending.headers.resize(area + MoviHeader);
    const JobGuard guard;
    set_job(g_tSdv2Avi, chunks, hints);
    g_tSdv2Avi.m_fsRec = fmemopen(ending.headers.data(), ending.headers.size(), "wb");
    if (!g_tSdv2Avi.m_fsRec) return false;
    const bool built = AVI_WriteFileHeader(summary, *hints.audioCode ? AVI_VideoAndAudio : AVI_Video) == 0 &&
                       !ferror(g_tSdv2Avi.m_fsRec);
    if (fclose(g_tSdv2Avi.m_fsRec) != 0 || !built) return false;

    ending.headers.resize(area);
    append_record(ending.headers,
                  AVI_MoviHeader{avi::fcc("LIST"), uint32_t(end - area - 8), avi::fcc("movi")});
    return true;
}

bool plan_ending(const avi::File& file, const avi::Report& report, AviHints hints, const Beside& beside,
                 Ending& ending, std::string& why)
{
    AviChunks& chunks = ending.chunks;
    if (file.fd < 0) return fail(why, report.findings.front().what);
    if (!read_chunks(file, chunks, why) || !complete_hints(report, chunks, hints, why)) return false;

    bool built = false;
    const uint32_t area = has_audio(chunks) ? avi::AudioHeaderArea : avi::VideoHeaderArea;
    const auto build = [&] { built = build_headers(hints, area, ending); };
    beside.withJob ? beside.withJob(build) : build();
    if (!built) return fail(why, "out of memory");
    why = "finished: " + counted(chunks.pictures, "picture");
    if (chunks.audio) why += ", " + counted(chunks.audio, "audio chunk");
    if (chunks.cut) why += "; " + human_bytes(chunks.cut) + " behind the last whole chunk cut off";
    return true;
}

// ---- writing

const char* what_failed(const avi::File& file)
{
    if (avi::is_stopped(file)) return "interrupted";
    return errno ? strerror(errno) : "it changes meanwhile";
}

// The headers come last: as long as they are missing the file is known to be unfinished. An index that was
// not written whole goes: what failed for want of room gives it back.
bool finish_in_place(const std::string& path, const avi::File& file, const Ending& ending, std::string& why)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return fail(why, strerror(errno));
    uint64_t at = ending.chunks.end;
    const auto append = [fd, &at](std::span<const uint8_t> bytes) {
        at += bytes.size();
        return write_at(fd, at - bytes.size(), bytes);
    };
    const auto setPad = [fd](uint64_t pad) { return write_at(fd, pad, {&PadByte, 1}); };
    errno = 0;
    const bool indexed = ftruncate(fd, off_t(at)) == 0 && write_index(file, ending.chunks, append, setPad) &&
                         sync_in_pieces(fd, file.stop);
    const bool written = indexed && write_at(fd, 0, ending.headers) && fsync(fd) == 0;
    if (!written) why = what_failed(file);
    if (!indexed && ftruncate(fd, off_t(ending.chunks.end)) != 0) why += ", and its index cannot be cut off";
    close(fd);
    return written;
}

bool copy_chunks(const avi::File& file, uint64_t from, uint64_t to, OutputFile& output)
{
    Bytes block(Block);
    while (from < to) {
        const auto wanted = size_t(std::min<uint64_t>(Block, to - from));
        if (avi::read_at(file, from, block.data(), wanted) != wanted) return false;
        if (!write_output(output, std::span(block).first(wanted))) return false;
        from += wanted;
    }
    return true;
}

bool finish_copy(OutputFile& output, const avi::File& file)
{
    return fflush(output.file) == 0 && sync_in_pieces(fileno(output.file), file.stop) &&
           finish_output(output);
}

// What not everybody may read is not to be read as a copy either.
bool create_copy(const avi::File& file, const std::string& target, TempOutput& beside, std::string& why)
{
    struct stat status;
    if (fstat(file.fd, &status) != 0) return fail(why, strerror(errno));
    remove_abandoned_temps(target);
    return create_temp(beside, target, why, status.st_mode & 0666);
}

bool copy_sound(const avi::File& file, const TempOutput& beside, std::string& why)
{
    OutputFile output(beside.path);
    errno = 0;
    if (output.file && copy_chunks(file, 0, file.length, output) && finish_copy(output, file)) return true;
    return fail(why, "cannot write " + beside.target + ": " + what_failed(file));
}

bool write_repaired(const avi::File& file, const TempOutput& beside, const Ending& ending, std::string& why)
{
    const AviChunks& chunks = ending.chunks;
    OutputFile output(beside.path);
    const auto append = [&output](std::span<const uint8_t> bytes) { return write_output(output, bytes); };
    const uint64_t begin = chunks.area + MoviHeader, end = std::min(chunks.end, file.length);
    const auto setPad = [&output, moved = ending.headers.size() - begin](uint64_t pad) {
        return write_at(fileno(output.file), pad + moved, {&PadByte, 1});
    };
    errno = 0;
    const bool written = output.file && append(ending.headers) && copy_chunks(file, begin, end, output) &&
                         append({&PadByte, size_t(chunks.end - end)}) && fflush(output.file) == 0 &&
                         write_index(file, chunks, append, setPad) && finish_copy(output, file);
    return written || fail(why, "cannot write " + beside.target + ": " + what_failed(file));
}

bool finish_anew(const std::string& path, const avi::File& file, const Ending& ending, std::string& why)
{
    TempOutput beside;
    if (!create_copy(file, path, beside, why) || !write_repaired(file, beside, ending, why)) return false;
    take_over(beside, file.fd);
    return commit_temp(beside, why);
}

} // namespace

bool repair_avi(const std::string& path, const AviHints& hints, std::string& why)
{
    FileLock lock;
    const Locked locked = lock_file(path, lock);
    if (locked == Locked::others) return fail(why, "it is being written");
    if (locked == Locked::not_at_all && lock.fd < 0) return fail(why, strerror(errno)); // not even opened
    return repair_locked(path, hints, {}, why);
}

bool repair_locked(const std::string& path, const AviHints& hints, const Beside& beside, std::string& why)
{
    Ending ending;
    const avi::File file(path, beside.stop);
    const avi::Report report = avi::check_file(file);
    why = "sound already";
    if (report.sound()) return true;
    const bool planned = plan_ending(file, report, hints, beside, ending, why);
    if (avi::is_stopped(file)) return fail(why, "interrupted");
    if (!planned) return false;

    // Chunks that have to make room for the audio stream's headers cannot be moved in place without a moment
    // in which the file is no longer what it was, nor yet what it is to be.
    std::string trouble;
    const bool fits = ending.headers.size() == ending.chunks.area + MoviHeader;
    const bool written =
        fits ? finish_in_place(path, file, ending, trouble) : finish_anew(path, file, ending, trouble);
    return written || fail(why, trouble);
}

bool repair_avi_into(const std::string& path, const std::string& output, const AviHints& hints,
                     std::string& why, bool replace)
{
    Ending ending;
    const avi::File file(path);
    const avi::Report report = avi::check_file(file);
    std::string trouble;
    why = "sound already, copied";
    if (!report.sound() && !plan_ending(file, report, hints, {}, ending, why)) return false;
    TempOutput beside;
    const bool written = create_copy(file, output, beside, trouble) &&
                         (report.sound() ? copy_sound(file, beside, trouble)
                                         : write_repaired(file, beside, ending, trouble)) &&
                         commit_temp(beside, trouble, replace);
    return written || fail(why, trouble);
}

} // namespace tools
