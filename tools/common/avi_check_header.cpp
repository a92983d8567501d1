// The header area.
#include "avi_check_parts.h"

#include "annexb.h"
#include "sps.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace avi {

namespace cause = cli::cause;

namespace {

constexpr uint32_t HighestRate = 192000; // samples a second
constexpr size_t ParameterSets = 4096;   // bytes of a key frame in which its parameter sets lie

constexpr Field VideoFields[] = {
    {12, 4, fcc("LIST"), "LIST of hdrl"},
    {20, 4, fcc("hdrl"), "hdrl"},
    {24, 4, fcc("avih"), "avih"},
    {28, 4, 56, "avih size"},
    {32, 4, 40000, "dwMicroSecPerFrame"},
    {40, 4, 0, "dwPaddingGranularity"},
    {52, 4, 0, "dwInitialFrames"},
    {72, 4, 0, "dwReserved"},
    {76, 4, 0, "dwReserved"},
    {80, 4, 0, "dwReserved"},
    {84, 4, 0, "dwReserved"},
    {88, 4, fcc("LIST"), "LIST of the video strl"},
    {92, 4, 116, "size of the video strl list"},
    {96, 4, fcc("strl"), "video strl"},
    {100, 4, fcc("strh"), "video strh"},
    {104, 4, 56, "video strh size"},
    {108, 4, fcc("vids"), "video fccType"},
    {112, 4, fcc("H264"), "video fccHandler"},
    {116, 4, 0, "video dwFlags"},
    {120, 2, 0, "video wPriority"},
    {122, 2, 0, "video wLanguage"},
    {124, 4, 0, "video dwInitialFrames"},
    {128, 4, 1, "video dwScale"},
    {136, 4, 0, "video dwStart"},
    {148, 4, 0xFFFFFFFF, "video dwQuality"},
    {152, 4, 0, "video dwSampleSize"},
    {156, 2, 0, "rcFrame.left"},
    {158, 2, 0, "rcFrame.top"},
    {164, 4, fcc("strf"), "video strf"},
    {168, 4, 40, "video strf size"},
    {172, 4, 40, "biSize"},
    {184, 2, 1, "biPlanes"},
    {186, 2, 0, "biBitCount"},
    {188, 4, fcc("H264"), "biCompression"},
    {196, 4, 0, "biXPelsPerMeter"},
    {200, 4, 0, "biYPelsPerMeter"},
    {204, 4, 0, "biClrUsed"},
    {208, 4, 0, "biClrImportant"},
};

constexpr Field AudioFields[] = {
    {212, 4, fcc("LIST"), "LIST of the audio strl"},
    {216, 4, 96, "size of the audio strl list"},
    {220, 4, fcc("strl"), "audio strl"},
    {224, 4, fcc("strh"), "audio strh"},
    {228, 4, 56, "audio strh size"},
    {232, 4, fcc("auds"), "audio fccType"},
    {244, 2, 0, "audio wPriority"},
    {246, 2, 0, "audio wLanguage"},
    {248, 4, 0, "audio dwInitialFrames"},
    {260, 4, 0, "audio dwStart"},
    {272, 4, 0xFFFFFFFF, "audio dwQuality"},
    {280, 4, 0, "audio rcFrame"},
    {284, 4, 0, "audio rcFrame"},
    {288, 4, fcc("strf"), "audio strf"},
    {292, 4, 20, "audio strf size"},
};

constexpr Field G711Fields[] = {
    {236, 4, 1, "audio fccHandler"},    {240, 4, 0, "audio dwFlags"},
    {252, 4, 1, "audio dwScale"},       {268, 4, 16000, "audio dwSuggestedBufferSize"},
    {276, 4, 1, "audio dwSampleSize"},  {308, 2, 1, "nBlockAlign"},
    {310, 2, 8, "wBitsPerSample"},      {312, 2, 0, "cbSize"},
    {314, 2, 0, "codec data of G.711"},
};

constexpr Field AacFields[] = {
    {236, 4, 0, "audio fccHandler"},   {240, 4, 1, "audio dwFlags"},
    {252, 4, 1024, "audio dwScale"},   {268, 4, 8192, "audio dwSuggestedBufferSize"},
    {276, 4, 0, "audio dwSampleSize"}, {298, 2, 2, "nChannels"},
    {304, 4, 1956, "nAvgBytesPerSec"}, {308, 2, 4096, "nBlockAlign"},
    {310, 2, 0, "wBitsPerSample"},     {312, 2, 2, "cbSize"},
};

template <size_t Count>
void expect_all(Report& report, const Header& header, const Field (&fields)[Count])
{
    for (const Field& field : fields) expect(report, header, field);
}

// The two bytes that tell a decoder: AAC LC at this rate, stereo.
uint32_t aac_config(uint32_t rate)
{
    switch (rate) {
    case 48000:
        return 0x9011;
    case 32000:
        return 0x9012;
    case 16000:
        return 0x1014;
    default:
        return 0x9015;
    }
}

} // namespace

void expect(Report& report, const Header& header, const Field& field, const char* code)
{
    const uint32_t value = load(&header[field.offset], field.size);
    if (value == field.value) return;
    find(report, code, field.offset, "%s is %" PRIu32 " (0x%" PRIx32 "), not %" PRIu32 " (0x%" PRIx32 ")",
         field.name, value, value, field.value, field.value);
}

void check_video_header(Report& report, const Header& header, bool withAudio)
{
    expect_all(report, header, VideoFields);
    expect(report, header, {16, 4, withAudio ? 296u : 192u, "size of the hdrl list"});
    expect(report, header, {44, 4, withAudio ? 0x910u : 0x810u, "flags"});
    expect(report, header, {56, 4, withAudio ? 2u : 1u, "dwStreams"});

    report.width = load(&header[64], 4);
    report.height = load(&header[68], 4);
    report.rate = load(&header[132], 4);
    report.sampleRate = load(&header[36], 4) / 5;
    report.videoLength = load(&header[140], 4);
    report.reserved = load(&header[72], 4);
    expect(report, header, {160, 2, report.width & 0xFFFF, "rcFrame.right"});
    expect(report, header, {162, 2, report.height & 0xFFFF, "rcFrame.bottom"});
    expect(report, header, {176, 4, report.width, "biWidth"});
    expect(report, header, {180, 4, report.height, "biHeight"});
    expect(report, header, {192, 4, report.width * report.height * 3, "biSizeImage"});
    if (report.rate > 30)
        find(report, cause::WrongField, 132, "video dwRate is %" PRIu32 ", above 30", report.rate);
}

void check_audio_header(Report& report, const Header& header)
{
    Audio& audio = report.audio;
    audio.present = true;
    audio.formatTag = uint16_t(load(&header[296], 2));
    audio.channels = uint16_t(load(&header[298], 2));
    audio.sampleRate = load(&header[300], 4);
    audio.length = load(&header[264], 4);
    audio.config.assign(&header[314], &header[314] + 2);

    expect_all(report, header, AudioFields);
    expect(report, header, {256, 4, audio.sampleRate, "audio dwRate"});
    expect(report, header, {36, 4, 5 * audio.sampleRate, "dwMaxBytesPerSec"});
    if (audio.formatTag == 0xFF) {
        expect_all(report, header, AacFields);
        expect(report, header, {314, 2, aac_config(audio.sampleRate), "codec data of AAC"});
        return;
    }
    if (audio.formatTag != 6 && audio.formatTag != 7)
        find(report, cause::WrongField, 296, "wFormatTag is %u, not 6, 7 or 255", unsigned(audio.formatTag));
    expect_all(report, header, G711Fields);
    expect(report, header, {304, 4, audio.sampleRate, "nAvgBytesPerSec"});
    if (audio.channels > 255)
        find(report, cause::WrongField, 298, "nChannels is %u, above 255", unsigned(audio.channels));
}

void check_limits(Report& report, const Header& header)
{
    const uint32_t channels = report.audio.channels, bytes = load(&header[36], 4);
    if (report.audio.present && channels <= 255 && channels != 1 && channels != 2)
        find(report, cause::WrongField, 298, "nChannels is %" PRIu32 ", not 1 or 2", channels);
    if (bytes == 0 || bytes % 5 || bytes / 5 > HighestRate)
        find(report, cause::WrongField, 36, "dwMaxBytesPerSec is %" PRIu32 ": not five times a sample rate",
             bytes);
}

// No damage: a recorder may leave out pictures that its encoder counts on, and the recording says what is
// right.
void compare_rates(Report& report, const File& file, uint64_t firstPicture, uint32_t size)
{
    std::vector<uint8_t> start(std::min<size_t>(size, ParameterSets));
    start.resize(read_at(file, firstPicture, start.data(), start.size()));
    sps::Timing timing;
    for (const annexb::Nal& nal : annexb::split_nals(start)) {
        if (!sps::picture_timing(std::span(start).subspan(nal.payload, nal.end - nal.payload), timing))
            continue;
        const double above = report.rate - timing.rate;
        if (above > -1 && above < 1) return; // rounded, or cut off
        char text[120];
        snprintf(text, sizeof(text),
                 "it is played at %" PRIu32 " pictures a second; the video itself says %.5g%s", report.rate,
                 timing.rate, timing.fixed ? "" : ", or fewer");
        report.notes.push_back({132, text, cause::OtherRate});
        return;
    }
}

} // namespace avi
