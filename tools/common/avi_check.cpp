#include "avi_check_parts.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace avi {
namespace {

constexpr size_t MaxFindings = 200;

void check_counts(Report& report, const Header& header, const Counts& counts)
{
    if (!counts.whole) return;
    const Audio& audio = report.audio;
    expect(report, header, {48, 4, counts.video, "dwTotalFrames"});
    expect(report, header, {140, 4, counts.video, "video dwLength"});
    expect(report, header, {60, 4, counts.largest + 20480, "dwSuggestedBufferSize"});
    expect(report, header, {144, 4, counts.largest + 20480, "video dwSuggestedBufferSize"});
    if (audio.present)
        expect(report, header,
               {264, 4, counts.audio * (audio.formatTag == 0xFF ? 1 : 320), "audio dwLength"});
}

// The audio stream's header lies where a file without one has its movi list.
bool has_audio_header(const Header& header, const File& file)
{
    if (load(&header[220], 4) == fcc("movi")) return false;
    if (load(&header[220], 4) == fcc("strl") || load(&header[232], 4) == fcc("auds")) return true;
    uint8_t movi[4];
    if (read_at(file, AudioHeaderArea + 8, movi, 4) == 4 && load(movi, 4) == fcc("movi")) return true;
    return load(&header[56], 4) == 2;
}

// Headers are written at the end of a recording, in front of chunks that are there already.
bool is_cut_off(const Header& header, const File& file)
{
    Window window(file);
    const auto zero = [](uint8_t byte) { return byte == 0; };
    return std::all_of(header.begin(), header.begin() + VideoHeaderArea, zero) &&
           (is_stream(look_word(window, VideoHeaderArea + 12)) ||
            is_stream(look_word(window, AudioHeaderArea + 12)));
}

bool is_avi(Report& report, const Header& header, const File& file)
{
    if (is_cut_off(header, file)) {
        find(report, 0, "the recording was cut off before it had headers");
        return false;
    }
    if (load(&header[0], 4) != fcc("RIFF") && load(&header[8], 4) != fcc("AVI ")) {
        report.kind = Kind::other;
        find(report, 0, "no AVI file");
        return false;
    }
    if (file.length < VideoHeaderArea) find(report, file.length, "the file ends inside the headers");
    return file.length >= VideoHeaderArea;
}

} // namespace

void find(Report& report, uint64_t offset, const char* format, ...)
{
    if (report.findings.size() > MaxFindings) return;
    char text[200] = "further findings are left out";
    if (report.findings.size() < MaxFindings) {
        va_list values;
        va_start(values, format);
        vsnprintf(text, sizeof(text), format, values);
        va_end(values);
    }
    report.findings.push_back({offset, text});
}

Report check_file(const std::string& path, const Look& look)
{
    return check_file(File(path), look);
}

Report check_file(const File& file, const Look& look)
{
    Report report;
    if (file.fd < 0) {
        find(report, 0, "the file cannot be read: %s", strerror(errno));
        report.kind = Kind::unreadable;
        return report;
    }
    Header header{};
    read_at(file, 0, header.data(), header.size());
    if (!is_avi(report, header, file)) return report;

    const bool withAudio = has_audio_header(header, file);
    const uint32_t area = withAudio ? AudioHeaderArea : VideoHeaderArea;
    const uint32_t riffSize = load(&header[4], 4);
    if (file.length >= SizeLimit) find(report, SizeLimit, "the file is longer than a RIFF file can be");
    check_video_header(report, header, withAudio);
    if (withAudio && file.length >= area) check_audio_header(report, header);
    if (file.length == area && riffSize == 0) {
        find(report, 4, "no frames were recorded");
        return report;
    }
    const bool riffSizeHolds = riffSize == file.length - 8;
    if (!riffSizeHolds)
        find(report, 4, "the RIFF size is %" PRIu32 ", the file has %" PRIu64 " bytes behind it", riffSize,
             file.length - 8);
    check_counts(report, header, check_movi(report, file, area, riffSizeHolds, look));
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
