#include "avi_hints.h"

#include "Quorlin.h"
#include "avi_bytes.h"
#include "frame_cutter.h"
#include "sps.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace tools {
namespace {

constexpr int AudioCodes[] = {1, 2, 22};
constexpr uint32_t MaxRate = 30; // of a recording
constexpr uint32_t UsualAudioRate = 8000;
constexpr uint32_t LateAudio = 0x41550000; // with the channels and the coding below

int code_of(uint16_t formatTag)
{
    if (formatTag == 0xFF) return 22;
    return formatTag == 6 ? 1 : 2;
}

bool is_late_audio(uint32_t note)
{
    return (note & 0xFFFF0000) == LateAudio && is_audio_code(note & 0xFF);
}

AviHints hints_of(const avi::Report& report)
{
    AviHints hints{report.width, report.height, report.rate, 0, report.sampleRate, std::nullopt};
    if (!report.audio.present && is_late_audio(report.reserved)) {
        hints.audioCode = int(report.reserved & 0xFF);
        hints.channels = report.reserved >> 8 & 0xFF;
    }
    if (!report.audio.present) return hints;
    hints.audioCode = code_of(report.audio.formatTag);
    hints.audioRate = report.audio.sampleRate;
    hints.channels = report.audio.channels;
    return hints;
}

// As a conversion and the recorder complete it.
AviHints hints_of_header(const S_FileHeader& header)
{
    AviHints hints{header.Width, header.Height, header.FrameRate, 0, header.SamplesPerSec, header.AChannels};
    if (*hints.channels == 0 || *hints.channels == 255) hints.channels = 1;
    if (*hints.audioRate == 0 || *hints.audioRate == UINT32_MAX) hints.audioRate = UsualAudioRate;
    return hints;
}

// The coding that the first frame to name one names; 0 when none does.
int find_audio_code(const avi::File& input, int mode)
{
    sdv::FrameCutter cutter;
    for (uint64_t at = sizeof(S_FileHeader); at < input.length;) {
        const auto room = sdv::piece_room(cutter);
        const size_t got = avi::read_at(input, at, room.data(), room.size());
        if (got == 0) break;
        at += got;
        sdv::add_piece(cutter, got);
        for (auto frame = sdv::take_frame(cutter, mode); !frame.empty();
             frame = sdv::take_frame(cutter, mode)) {
            const int code = frame[offsetof(S_FrameHeader, u8ACoder)];
            if (is_audio_code(code)) return code;
        }
    }
    return 0;
}

template <typename Value>
void add(std::optional<Value>& hint, const std::optional<Value>& other)
{
    if (!hint) hint = other;
}

} // namespace

bool is_audio_code(int code)
{
    return std::find(std::begin(AudioCodes), std::end(AudioCodes), code) != std::end(AudioCodes);
}

bool hints_of_recording(const std::string& path, AviHints& hints, std::string& why)
{
    const avi::File input(path); // which never waits for what is no regular file
    if (input.fd < 0) {
        why = "cannot open " + path + ": " + (errno == EINVAL ? "it is no regular file" : strerror(errno));
        return false;
    }
    S_FileHeader header{};
    const size_t got = avi::read_at(input, 0, reinterpret_cast<uint8_t*>(&header), sizeof(header));
    if (got < std::min<uint64_t>(input.length, sizeof(header))) {
        why = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    if (got != sizeof(header) || !IsValidFileHeader(&header)) {
        why = path + " is no SDV recording";
        return false;
    }
    hints = hints_of_header(header);
    hints.audioCode = find_audio_code(input, header.Mode);
    return true;
}

bool hints_of_avi(const std::string& path, AviHints& hints, std::string& why)
{
    const avi::Report report = avi::check_file(path);
    if (!report.sound()) {
        why = path + " is no sound AVI file: " + report.findings.front().what;
        return false;
    }
    hints = hints_of(report);
    return true;
}

uint32_t late_audio_note(int code, uint8_t channels)
{
    return LateAudio | uint32_t{channels} << 8 | uint32_t(code);
}

AviHints hints_of_torn_avi(const avi::Report& report)
{
    if (report.moviOffset == 0) return {};
    const uint64_t area = report.moviOffset - sizeof(AVI_FrameHeader);
    const auto wrong = [area, &report](const avi::Finding& finding) {
        if (finding.offset == LateAudioAt && is_late_audio(report.reserved)) return false;
        constexpr uint64_t Counts[] = {4, 48, 60, 140, 144, 264};
        return finding.offset < area &&
               std::find(std::begin(Counts), std::end(Counts), finding.offset) == std::end(Counts);
    };
    if (std::any_of(report.findings.begin(), report.findings.end(), wrong)) return {};
    return hints_of(report);
}

AviHints hints_of_sps(std::span<const uint8_t> nal)
{
    AviHints hints;
    sps::PictureSize size;
    uint32_t rate = 0;
    if (sps::picture_size(nal, size)) hints.width = size.width, hints.height = size.height;
    if (sps::picture_rate(nal, rate) && rate <= MaxRate) hints.rate = rate;
    return hints;
}

void add_hints(AviHints& hints, const AviHints& others)
{
    add(hints.width, others.width);
    add(hints.height, others.height);
    add(hints.rate, others.rate);
    add(hints.audioCode, others.audioCode);
    add(hints.audioRate, others.audioRate);
    add(hints.channels, others.channels);
}

} // namespace tools
