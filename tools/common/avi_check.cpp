#include "avi_check_parts.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace avi {

namespace cause = cli::cause;

namespace {

constexpr size_t MaxFindings = 200;

void check_counts(Report& report, const Header& header, const Counts& counts)
{
    if (!counts.whole) return;
    const Audio& audio = report.audio;
    expect(report, header, {48, 4, counts.video, "dwTotalFrames"}, cause::WrongCount);
    expect(report, header, {140, 4, counts.video, "video dwLength"}, cause::WrongCount);
    expect(report, header, {60, 4, counts.largest + 20480, "dwSuggestedBufferSize"}, cause::WrongCount);
    expect(report, header, {144, 4, counts.largest + 20480, "video dwSuggestedBufferSize"},
           cause::WrongCount);
    if (audio.present)
        expect(report, header, {264, 4, counts.audio * (audio.formatTag == 0xFF ? 1 : 320), "audio dwLength"},
               cause::WrongCount);
}

// The audio stream's header lies where a file without one has its movi list.
bool has_audio_header(const Header& header, Window& window)
{
    if (load(&header[220], 4) == fcc("movi")) return false;
    if (load(&header[220], 4) == fcc("strl") || load(&header[232], 4) == fcc("auds")) return true;
    return look_word(window, AudioHeaderArea + 8) == fcc("movi") || load(&header[56], 4) == 2;
}

// Headers are written at the end of a recording, in front of chunks that are there already.
bool is_cut_off(const Header& header, Window& window)
{
    const auto zero = [](uint8_t byte) { return byte == 0; };
    return std::all_of(header.begin(), header.begin() + VideoHeaderArea, zero) &&
           (is_stream(look_word(window, VideoHeaderArea + 12)) ||
            is_stream(look_word(window, AudioHeaderArea + 12)));
}

bool is_avi(Report& report, const Header& header, Window& window)
{
    const uint64_t length = window.file.length;
    if (is_cut_off(header, window)) {
        find(report, cause::CutOff, 0, "the recording was cut off before it had headers");
        return false;
    }
    if (load(&header[0], 4) != fcc("RIFF") || load(&header[8], 4) != fcc("AVI ")) {
        report.kind = Kind::other;
        length ? find(report, cause::NoAvi, 0, "no AVI file")
               : find(report, cause::EmptyFile, 0, "no AVI file: it is empty");
        return false;
    }
    if (length < VideoHeaderArea) find(report, cause::CutOff, length, "the file ends inside the headers");
    return length >= VideoHeaderArea;
}

} // namespace

void find(Report& report, const char* code, uint64_t offset, const char* format, ...)
{
    if (report.findings.size() > MaxFindings) return;
    char text[200] = "further findings are left out";
    if (report.findings.size() < MaxFindings) {
        va_list values;
        va_start(values, format);
        vsnprintf(text, sizeof(text), format, values);
        va_end(values);
    }
    report.findings.push_back({offset, text, code});
}

void tell_unreadable(Report& report, size_t kept)
{
    report.kind = Kind::unreadable;
    report.findings.erase(report.findings.begin() + long(kept), report.findings.end());
    find(report, cause::CannotRead, 0, "the file cannot be read: %s",
         errno ? strerror(errno) : "it has become shorter");
    std::rotate(report.findings.begin(), report.findings.end() - 1, report.findings.end());
}

Report check_file(const std::string& path, const Look& look)
{
    return check_file(File(path), look);
}

Report check_file(const File& file, const Look& look)
{
    Report report;
    if (file.fd < 0) return tell_unreadable(report), report;
    errno = 0;
    Window window(file);
    Header header{};
    const size_t count = size_t(std::min<uint64_t>(file.length, header.size()));
    const uint8_t* start = avi::look(window, 0, count);
    if (start) std::copy_n(start, count, header.begin());
    const bool ours = is_avi(report, header, window);
    const bool withAudio = ours && has_audio_header(header, window);
    if (window.failed) return tell_unreadable(report), report;
    if (!ours) return report;

    const uint32_t area = withAudio ? AudioHeaderArea : VideoHeaderArea;
    const uint32_t riffSize = load(&header[4], 4);
    if (file.length >= SizeLimit)
        find(report, cause::WrongSize, SizeLimit, "the file is longer than a RIFF file can be");
    check_video_header(report, header, withAudio);
    if (withAudio && file.length >= area) check_audio_header(report, header);
    if (file.length == area && riffSize == 0) {
        find(report, cause::NoFrames, 4, "no frames were recorded");
        return report;
    }
    const bool riffSizeHolds = riffSize == file.length - 8;
    if (!riffSizeHolds)
        find(report, cause::WrongSize, 4,
             "the RIFF size is %" PRIu32 ", the file has %" PRIu64 " bytes behind it", riffSize,
             file.length - 8);
    const Counts counts = check_movi(report, file, area, riffSizeHolds, look);
    check_counts(report, header, counts);
    if (!look.strict) return report;
    check_limits(report, header);
    if (counts.firstPicture && report.sound())
        compare_rates(report, file, counts.firstPicture, counts.firstSize);
    return report;
}

std::string describe(const Report& report)
{
    std::string text;
    for (const Finding& finding : report.findings) {
        char place[40];
        snprintf(place, sizeof(place), "offset %" PRIu64 ": ", finding.offset);
        text += place + finding.what + "\n";
    }
    return text;
}

std::vector<uint8_t> chunk_bytes(const std::string& path, const Chunk& chunk)
{
    const File file(path);
    if (file.fd < 0 || chunk.offset > file.length || file.length - chunk.offset < 8) return {};
    const uint64_t rest = file.length - chunk.offset - 8;
    std::vector<uint8_t> bytes(size_t(chunk.size < rest ? chunk.size : rest));
    bytes.resize(read_at(file, chunk.offset + 8, bytes.data(), bytes.size()));
    return bytes;
}

} // namespace avi
