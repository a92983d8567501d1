// The checker itself: a sound file built by hand, and one fault at a time planted in it.
#include "avi_check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>

#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;

void word(Bytes& file, size_t at, uint32_t value)
{
    for (int i = 0; i < 4; ++i) file[at + i] = uint8_t(value >> 8 * i);
}

// Text and 32-bit numbers in file order.
struct Builder
{
    Bytes file;
    Builder& text(const char* id)
    {
        file.insert(file.end(), id, id + 4);
        return *this;
    }
    Builder& words(std::initializer_list<uint32_t> values)
    {
        for (uint32_t value : values) {
            file.resize(file.size() + 4);
            word(file, file.size() - 4, value);
        }
        return *this;
    }
    Builder& chunk(const char* id, uint32_t size, std::vector<uint32_t>& index, bool key)
    {
        uint32_t name;
        memcpy(&name, id, 4);
        index.insert(index.end(), {name, key ? 0x10u : 0u, uint32_t(file.size()) - 324, size});
        text(id).words({size});
        file.insert(file.end(), size, 0x55);
        if (size % 2) file.push_back(0x30);
        return *this;
    }
};

// mu-law at 8000 Hz and 64 x 48 pictures. Chunks at 328 (video, 101), 438 (audio, 320), 766 (video, 80),
// 854 (audio, 320), 1182 (video, 33); the movi list ends at 1224, where the index begins.
Bytes sound_file()
{
    Builder b;
    std::vector<uint32_t> index;
    b.text("RIFF").words({0}).text("AVI ").text("LIST").words({296}).text("hdrl").text("avih").words({56});
    b.words({40000, 40000, 0, 0x910, 3, 0, 2, 20581, 64, 48, 0, 0, 0, 0});
    b.text("LIST").words({116}).text("strl").text("strh").words({56}).text("vids").text("H264");
    b.words({0, 0, 0, 1, 25, 0, 3, 20581, 0xFFFFFFFF, 0, 0, 48u << 16 | 64});
    b.text("strf").words({40, 40, 64, 48, 1}).text("H264").words({9216, 0, 0, 0, 0});
    b.text("LIST").words({96}).text("strl").text("strh").words({56}).text("auds");
    b.words({1, 0, 0, 0, 1, 8000, 0, 640, 16000, 0xFFFFFFFF, 1, 0, 0});
    b.text("strf").words({20, 1 << 16 | 7, 8000, 8000, 8 << 16 | 1, 0});
    b.text("LIST").words({0}).text("movi");
    b.chunk("00dc", 101, index, true).chunk("01wb", 320, index, true).chunk("00dc", 80, index, false);
    b.chunk("01wb", 320, index, true).chunk("00dc", 33, index, false);
    word(b.file, 320, uint32_t(b.file.size()) - 324);
    b.text("idx1").words({uint32_t(index.size()) * 4});
    for (uint32_t value : index) b.words({value});
    word(b.file, 4, uint32_t(b.file.size()) - 8);
    return b.file;
}

avi::Report check(const Bytes& file)
{
    const std::string path = testing::TempDir() + "avi_check." + std::to_string(getpid()) + ".avi";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), long(file.size()));
    avi::Report report = avi::check_file(path);
    EXPECT_EQ(unlink(path.c_str()), 0);
    return report;
}

struct Fault
{
    const char* what;
    std::function<void(Bytes&)> plant;
    uint64_t offset;     // where it is to be found
    const char* finding; // and in which words
    size_t chunks = 5;   // still found behind it
};

std::function<void(Bytes&)> set(size_t at, uint32_t value)
{
    return [=](Bytes& file) { word(file, at, value); };
}

constexpr size_t Idx = 1232; // the first index entry

const Fault faults[] = {
    {"RIFF size", set(4, 1), 4, "RIFF size"},
    {"RIFF id", set(0, 0), 0, "RIFF"},
    {"hdrl list size", set(16, 192), 16, "hdrl"},
    {"flags", set(44, 0x810), 44, "flags"},
    {"stream count", set(56, 1), 56, "dwStreams"},
    {"frame count", set(48, 4), 48, "dwTotalFrames"},
    {"buffer size", set(60, 20480), 60, "dwSuggestedBufferSize"},
    {"video strl size", set(92, 0xFFFFFFF0), 92, "strl"},
    {"video length", set(140, 5), 140, "dwLength"},
    {"picture size", set(176, 65), 176, "biWidth"},
    {"strf size", set(168, 44), 168, "strf size"},
    {"audio strl id", set(220, 0), 220, "audio strl"},
    {"audio length", set(264, 2), 264, "audio dwLength"},
    {"audio rate", set(256, 16000), 256, "dwRate"},
    {"movi list size too large", set(320, 0x7FFFFFFF), 320, "movi list"},
    {"movi list size too small", set(320, 400), 320, "movi list"},
    {"movi id", set(324, 0), 324, "movi"},
    {"chunk size past the list", set(770, 0xFFFFFFFF), 770, "passes the end"},
    {"chunk size too small", set(770, 78), 770, "chunk's size"},
    {"chunk id", set(766, 0x63643130), 766, "unknown chunk id 01dc"},
    {"pad byte", [](Bytes& file) { file[437] = 0; }, 437, "pad byte"},
    {"idx1 size", set(1228, 64), 1228, "idx1 size"},
    {"index id", set(Idx + 16, 0x63643030), Idx + 16, "index id 00dc"},
    {"index flags of audio", set(Idx + 20, 0), Idx + 20, "index flags"},
    {"index flags of video", set(Idx + 4, 1), Idx + 4, "index flags"},
    {"index offset", set(Idx + 24, 116), Idx + 24, "index offset"},
    {"last index offset", set(Idx + 72, 0), Idx + 72, "index offset"},
    {"index size", set(Idx + 12, 102), Idx + 12, "index size"},
};

TEST(AviCheck, SoundFile)
{
    const avi::Report report = check(sound_file());
    EXPECT_EQ(avi::describe(report), "");
    ASSERT_EQ(report.chunks.size(), 5u);
    EXPECT_EQ(report.chunks[4].offset, 1182u);
    EXPECT_TRUE(report.chunks[0].key);
    EXPECT_FALSE(report.chunks[2].key);
    EXPECT_EQ(report.audio.formatTag, 7);
    EXPECT_EQ(report.moviOffset, 324u);
}

TEST(AviCheck, FindsEachFaultOnceAndAlone)
{
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.what);
        Bytes file = sound_file();
        fault.plant(file);
        const avi::Report report = check(file);
        ASSERT_EQ(report.findings.size(), 1u) << avi::describe(report);
        EXPECT_EQ(report.findings[0].offset, fault.offset) << avi::describe(report);
        EXPECT_NE(report.findings[0].what.find(fault.finding), std::string::npos) << avi::describe(report);
        EXPECT_EQ(report.chunks.size(), fault.chunks);
    }
}

TEST(AviCheck, OneFaultHidesNoOther)
{
    Bytes file = sound_file();
    word(file, 0x1C, 0);      // avih size
    word(file, 442, 0x10000); // an audio chunk's size
    word(file, 1182, 0);      // a later chunk's id
    word(file, Idx + 44, 81); // index size of the chunk between them
    file.push_back(0);        // a stray byte at the end
    const avi::Report report = check(file);
    EXPECT_EQ(report.findings.size(), 6u) << avi::describe(report);
}

TEST(AviCheck, AnyLengthAndAnyBitAreSafe)
{
    const Bytes sound = sound_file();
    for (size_t length = 0; length < sound.size(); length += length < 340 ? 1 : 7)
        EXPECT_FALSE(check(Bytes(sound.begin(), sound.begin() + long(length))).sound()) << length;
    for (size_t at = 0; at < sound.size(); ++at) {
        Bytes file = sound;
        file[at] ^= 0xFF;
        check(file);
    }
}

TEST(AviCheck, BareHeadersAndNoFile)
{
    Bytes bare = sound_file();
    bare.resize(316);
    word(bare, 4, 0);
    EXPECT_EQ(avi::describe(check(bare)), "offset 4: no frames were recorded\n");
    EXPECT_FALSE(avi::check_file("/nowhere").sound());
    EXPECT_FALSE(avi::check_file("/dev/zero").sound());
}

} // namespace
