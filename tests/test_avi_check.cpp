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

static avi::Report check(const Bytes& file, const avi::Look& look = {})
{
    TempDir dir;
    write_file(dir / "a.avi", file);
    return avi::check_file(dir / "a.avi", look);
}

// What is written over the right value, and how the fault is told; the index entries begin at 1232.
static const std::tuple<size_t, Word, const char*> faults[] = {
    {4, 1, "RIFF size"},         {16, 192, "hdrl list"},    {44, 0x810, "flags"},
    {48, 4, "dwTotalFrames"},    {56, 1, "dwStreams"},      {60, 20480, "BufferSize"},
    {92, ~15u, "video strl"},    {140, 5, "dwLength"},      {176, 65, "biWidth"},
    {220, 0, "audio strl"},      {256, 16000, "dwRate"},    {264, 2, "audio dwLength"},
    {320, ~0u >> 1, "movi"},     {320, 400, "movi list"},   {324, "move", "movi"},
    {437, half(0x3055), "pad"},  {766, "01dc", "id 01dc"},  {770, ~0u, "the end"},
    {770, 78, "chunk's size"},   {1228, 64, "idx1 size"},   {1236, 1, "index flags"},
    {1244, 102, "index size"},   {1248, "00dc", "id 00dc"}, {1252, 0, "index flags"},
    {1256, 116, "index offset"}, {1304, 0, "index offset"},
};

TEST(AviCheck, FindsEachFaultOnceAndAlone)
{
    std::vector<avi::Chunk> chunks;
    const avi::Report sound =
        check(sound_file(), {.each = [&chunks](const avi::Chunk& chunk) { chunks.push_back(chunk); }});
    ASSERT_EQ(std::pair(avi::describe(sound), chunks.size()), std::pair(std::string(), size_t(5)));
    EXPECT_EQ(std::pair(chunks[4].offset, sound.audio.formatTag), std::pair(uint64_t(1182), uint16_t(7)));
    EXPECT_TRUE(chunks[0].key && !chunks[2].key);
    for (const auto& [at, value, words] : faults) {
        const avi::Report report = check(with(sound_file(), at, value));
        SCOPED_TRACE(testing::Message() << words << " at " << at << ": " << avi::describe(report));
        ASSERT_EQ(std::pair(report.findings.size(), report.videoChunks + report.audioChunks),
                  std::pair(size_t(1), 5u));
        EXPECT_EQ(report.findings[0].offset, at);
        EXPECT_NE(report.findings[0].what.find(words), std::string::npos);
    }
    Bytes file = sound_file() + Bytes(1, 0); // one fault hides no other: here a stray byte at the end,
    for (const auto& [at, value] : {std::pair{28, 0}, {442, 0x10000}, {1182, 0}, {1276, 81}})
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
    EXPECT_EQ(avi::check_file("/nowhere").kind, avi::Kind::unreadable);
    for (const Bytes& file : {Bytes(300, 1), Bytes(), with(sound, 0, "RIFX"), with(sound, 8, "WAVE")})
        EXPECT_EQ(check(file).kind, avi::Kind::other);
    for (const Bytes& file : {part(sound, 0, 100), Bytes(328, 0) + part(sound, 328, 1224)})
        EXPECT_EQ(check(file).kind, avi::Kind::avi);
}

TEST(AviCheck, PicturesBeginWithAStartCodeAndAsTheirFlagSays)
{
    // a long code, a short one, and none
    const Bytes file = with(with(sound_file(), 336, 0x01000000), 774, 0x41010000);
    EXPECT_TRUE(check(file).sound());
    EXPECT_EQ(avi::describe(check(file, {.strict = true})),
              "offset 1190: the picture begins without a start code\n");
    const std::tuple<size_t, uint32_t, const char*> slices[] = {
        {340, 0x8865, ""}, // IDR; then an I slice, and one of another picture
        {340, 0x8841, ""},
        {340, 0x9A41, "offset 1236: index flags 0x10 for what is no key frame\n"},
        {777, 0x8865, "offset 1268: index flags 0x0 for a key frame\n"},
    };
    for (const auto& [at, bytes, said] : slices) {
        const Bytes changed = with(with(file, 1190, 0x41010000), at, half(bytes));
        EXPECT_EQ(avi::describe(check(changed, {.strict = true})), said);
    }
}
