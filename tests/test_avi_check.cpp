// The checker itself: a sound file built by hand, and one fault at a time planted in it.
#include "support.h"

// mu-law at 8000 Hz and 64 x 48 pictures. Chunks at 328 (video, 101), 438 (audio, 320), 766 (video, 80),
// 854 (audio, 320), 1182 (video, 33); the movi list ends at 1224, where the index begins.
static Bytes sound_file()
{
    Bytes chunks, index;
    const std::tuple<const char*, uint32_t, uint32_t> parts[] = {
        {"00dc", 101, 16}, {"01wb", 320, 16}, {"00dc", 80, 0}, {"01wb", 320, 16}, {"00dc", 33, 0}};
    for (const auto& [id, size, flags] : parts) {
        sdv::append(index, words(id, flags, uint32_t(4 + chunks.size()), size));
        chunks = chunks + words(id, size) + Bytes(size, 0x55) + Bytes(size % 2, 0x30);
    }
    const Bytes headers =
        words("AVI ", "LIST", 296, "hdrl", "avih", 56, 40000, 40000, 0, 0x910, 3, 0, 2, 20581, 64, 48, 0, 0,
              0, 0) +
        words("LIST", 116, "strl", "strh", 56, "vids", "H264", 0, 0, 0, 1, 25, 0, 3, 20581, 0xFFFFFFFF, 0, 0,
              48 << 16 | 64, "strf", 40, 40, 64, 48, 1, "H264", 9216, 0, 0, 0, 0) +
        words("LIST", 96, "strl", "strh", 56, "auds", 1, 0, 0, 0, 1, 8000, 0, 640, 16000, 0xFFFFFFFF, 1, 0, 0,
              "strf", 20, 1 << 16 | 7, 8000, 8000, 8 << 16 | 1, 0) +
        words("LIST", uint32_t(chunks.size() + 4), "movi");
    const Bytes body = headers + chunks + words("idx1", uint32_t(index.size())) + index;
    return words("RIFF", uint32_t(body.size())) + body;
}

static avi::Report check(const Bytes& file)
{
    TempDir dir;
    write_file(dir / "a.avi", file);
    return avi::check_file(dir / "a.avi");
}

static const size_t idx = 1232; // the first index entry

static const struct
{
    const char* what;
    size_t at;
    uint32_t value;
    size_t offset;       // where it is to be found
    const char* finding; // and in which words
} faults[] = {
    {"RIFF size", 4, 1, 4, "RIFF size"},
    {"RIFF id", 0, 0, 0, "RIFF"},
    {"hdrl list size", 16, 192, 16, "hdrl"},
    {"flags", 44, 0x810, 44, "flags"},
    {"stream count", 56, 1, 56, "dwStreams"},
    {"frame count", 48, 4, 48, "dwTotalFrames"},
    {"buffer size", 60, 20480, 60, "dwSuggestedBufferSize"},
    {"video strl size", 92, 0xFFFFFFF0, 92, "strl"},
    {"video length", 140, 5, 140, "dwLength"},
    {"picture size", 176, 65, 176, "biWidth"},
    {"audio strl id", 220, 0, 220, "audio strl"},
    {"audio length", 264, 2, 264, "audio dwLength"},
    {"audio rate", 256, 16000, 256, "dwRate"},
    {"movi list size too large", 320, 0x7FFFFFFF, 320, "movi list"},
    {"movi list size too small", 320, 400, 320, "movi list"},
    {"movi id", 324, 0, 324, "movi"},
    {"chunk size past the list", 770, 0xFFFFFFFF, 770, "passes the end"},
    {"chunk size too small", 770, 78, 770, "chunk's size"},
    {"chunk id", 766, 0x63643130, 766, "unknown chunk id 01dc"},
    {"pad byte", 434, 0x00555555, 437, "pad byte"},
    {"idx1 size", 1228, 64, 1228, "idx1 size"},
    {"index id", idx + 16, 0x63643030, idx + 16, "index id 00dc"},
    {"index flags of audio", idx + 20, 0, idx + 20, "index flags"},
    {"index flags of video", idx + 4, 1, idx + 4, "index flags"},
    {"index offset", idx + 24, 116, idx + 24, "index offset"},
    {"last index offset", idx + 72, 0, idx + 72, "index offset"},
    {"index size", idx + 12, 102, idx + 12, "index size"},
};

TEST(AviCheck, FindsEachFaultOnceAndAlone)
{
    const avi::Report sound = check(sound_file());
    EXPECT_EQ(avi::describe(sound), "");
    ASSERT_EQ(sound.chunks.size(), 5u);
    EXPECT_EQ(sound.chunks[4].offset, 1182u);
    EXPECT_TRUE(sound.chunks[0].key && !sound.chunks[2].key);
    EXPECT_EQ(sound.audio.formatTag, 7);
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        const avi::Report report = check(with(sound_file(), fault.at, fault.value));
        ASSERT_EQ(report.findings.size(), 1u) << avi::describe(report);
        EXPECT_EQ(report.findings[0].offset, fault.offset) << avi::describe(report);
        EXPECT_NE(report.findings[0].what.find(fault.finding), std::string::npos) << avi::describe(report);
        EXPECT_EQ(report.chunks.size(), 5u);
    }
    Bytes file = sound_file() + Bytes(1, 0); // one fault hides no other: here a stray byte at the end,
    for (const auto& [at, value] : {std::pair{28, 0}, {442, 0x10000}, {1182, 0}, {int(idx) + 44, 81}})
        file = with(file, size_t(at), value); // avih size, size and id of chunks, an index size between them
    EXPECT_EQ(check(file).findings.size(), 6u);
}

TEST(AviCheck, AnyLengthAndAnyBitAreSafe)
{
    const Bytes sound = sound_file();
    for (size_t length = 0; length < sound.size(); length += length < 340 ? 1 : 7)
        EXPECT_FALSE(check(part(sound, 0, length)).sound()) << length;
    for (size_t at = 0; at < sound.size(); ++at) {
        Bytes file = sound;
        file[at] ^= 0xFF;
        check(file);
    }
    EXPECT_EQ(avi::describe(check(with(part(sound, 0, 316), 4, 0))), "offset 4: no frames were recorded\n");
    EXPECT_FALSE(avi::check_file("/nowhere").sound() || avi::check_file("/dev/zero").sound());
}
