#include "avi_repair.h"

#include "avi_check.h"
#include "avi_chunks.h"
#include "files.h"
#include "human.h"
#include "temp_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tools {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int CodeAac = 22;
constexpr uint32_t MoviHeader = sizeof(AVI_MoviHeader);
constexpr size_t Block = 1u << 20;

// Everything of the finished file but its chunks.
struct Ending
{
    AviChunks chunks;
    Bytes headers; // up to the first chunk
    Bytes index;
};

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

bool complete_hints(const std::string& path, const AviChunks& chunks, AviHints& hints, std::string& why)
{
    add_hints(hints, hints_of_torn_avi(path));
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

bool build_headers(const AviHints& hints, uint32_t area, Ending& ending)
{
    const AviChunks& chunks = ending.chunks;
    const uint64_t end = chunks.end + (area - chunks.area);
    const AVI_Header summary = {int32_t(*hints.width), int32_t(*hints.height), int32_t(chunks.pictures),
                                int32_t(uint32_t(end + ending.index.size() - 8)), int32_t(chunks.largest)};
    ending.headers.resize(area + MoviHeader);
    const JobGuard guard;
    set_job(g_tSdv2Avi, chunks, hints);
    g_tSdv2Avi.m_fsRec = fmemopen(ending.headers.data(), ending.headers.size(), "wb");
    if (!g_tSdv2Avi.m_fsRec) return false;
    const bool built = AVI_WriteFileHeader(summary, *hints.audioCode ? AVI_VideoAndAudio : AVI_Video) == 0;
    if (fclose(g_tSdv2Avi.m_fsRec) != 0 || !built) return false;

    ending.headers.resize(area);
    append_record(ending.headers,
                  AVI_MoviHeader{avi::fcc("LIST"), uint32_t(end - area - 8), avi::fcc("movi")});
    return true;
}

bool plan_ending(const std::string& path, const avi::File& file, AviHints hints, Ending& ending,
                 std::string& why)
{
    AviChunks& chunks = ending.chunks;
    if (file.fd < 0) return fail(why, strerror(errno));
    if (!read_chunks(file, chunks, why) || !complete_hints(path, chunks, hints, why)) return false;

    const size_t size = chunks.index.size() * sizeof(AVI_IndexEntity);
    append_record(ending.index, AVI_IndexHeader{avi::fcc("idx1"), uint32_t(size)});
    ending.index.resize(sizeof(AVI_IndexHeader) + size);
    memcpy(&ending.index[sizeof(AVI_IndexHeader)], chunks.index.data(), size);
    if (!build_headers(hints, has_audio(chunks) ? avi::AudioHeaderArea : avi::VideoHeaderArea, ending))
        return fail(why, "out of memory");
    why = "finished: " + counted(chunks.pictures, "picture");
    if (chunks.audio) why += ", " + counted(chunks.audio, "audio chunk");
    if (chunks.cut) why += "; " + human_bytes(chunks.cut) + " behind the last whole chunk cut off";
    return true;
}

// ---- writing

bool write_at(int fd, uint64_t offset, const Bytes& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = pwrite(fd, &bytes[done], bytes.size() - done, off_t(offset + done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += size_t(put);
    }
    return fsync(fd) == 0;
}

// The headers come last: as long as they are missing the file is known to be unfinished.
bool finish_in_place(const std::string& path, const Ending& ending, std::string& why)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const bool written = fd >= 0 && ftruncate(fd, off_t(ending.chunks.end)) == 0 &&
                         write_at(fd, ending.chunks.end, ending.index) && write_at(fd, 0, ending.headers);
    if (!written) why = strerror(errno);
    if (fd >= 0) close(fd);
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

bool write_copy(const avi::File& file, const std::string& target, const Ending& ending, uint64_t begin,
                uint64_t end, std::string& why, bool replace = true)
{
    TempOutput beside;
    remove_abandoned_temps(target);
    if (!create_temp(beside, target, why)) return false;
    OutputFile output(beside.path);
    const bool written = output.file && write_output(output, ending.headers) &&
                         copy_chunks(file, begin, end, output) && write_output(output, ending.index) &&
                         finish_output(output);
    if (!written) return fail(why, "cannot write " + target + ": " + strerror(errno));
    return commit_temp(beside, why, replace);
}

// A recorder, or another repair, at work on it holds a lock, as we do as long as the file is open.
bool is_being_written(const avi::File& file)
{
    return file.fd >= 0 && flock(file.fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool write_repaired(const avi::File& file, const std::string& target, const Ending& ending, std::string& why,
                    bool replace = true)
{
    const AviChunks& chunks = ending.chunks;
    return write_copy(file, target, ending, chunks.area + MoviHeader, chunks.end, why, replace);
}

} // namespace

bool repair_avi(const std::string& path, const AviHints& hints, std::string& why)
{
    Ending ending;
    const avi::File file(path);
    why = "sound already";
    if (avi::check_file(path).sound()) return true;
    if (is_being_written(file)) return fail(why, "it is being written");
    if (!plan_ending(path, file, hints, ending, why)) return false;

    // Chunks that have to make room for the audio stream's headers cannot be moved in place without a moment
    // in which the file is no longer what it was, nor yet what it is to be.
    std::string trouble;
    const bool fits = ending.headers.size() == ending.chunks.area + MoviHeader;
    const bool written =
        fits ? finish_in_place(path, ending, trouble) : write_repaired(file, path, ending, trouble);
    return written || fail(why, trouble);
}

bool repair_avi_into(const std::string& path, const std::string& output, const AviHints& hints,
                     std::string& why, bool replace)
{
    Ending ending;
    const avi::File file(path);
    std::string trouble;
    why = "sound already, copied";
    if (avi::check_file(path).sound())
        return write_copy(file, output, ending, 0, file.length, trouble, replace) || fail(why, trouble);
    if (!plan_ending(path, file, hints, ending, why)) return false;
    return write_repaired(file, output, ending, trouble, replace) || fail(why, trouble);
}

} // namespace tools
