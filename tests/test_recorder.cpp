#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "support.h"

using sdv::FrameFields;
using Frames = std::vector<FrameFields>;

static FrameFields with_audio(FrameFields frame, uint8_t code, std::vector<Bytes> before,
                              std::vector<Bytes> after)
{
    frame.audioCode = code;
    frame.audioBefore = std::move(before);
    frame.audioAfter = std::move(after);
    return frame;
}

static FrameFields mu_law(uint32_t number, size_t videoSize = 100)
{
    return with_audio(picture(number, videoSize), 2, {}, {sdv::g711_slot(noise(320, number))});
}

static Chunk audio(const Bytes& data)
{
    return {"01wb", data, true};
}

// An ADTS frame of that length (what its header claims may be another one).
static Bytes adts(size_t length, size_t claimed = 0)
{
    if (!claimed) claimed = length;
    Bytes frame = noise(length, uint32_t(length));
    const Bytes header = {
        0xFF, 0xF1, 0x60, uint8_t(0x80 | claimed >> 11), uint8_t(claimed >> 3), uint8_t(claimed << 5 | 0x1F),
        0xFC};
    std::copy_n(header.begin(), std::min(length, header.size()), frame.begin());
    return frame;
}

static Chunk aac(size_t length)
{
    const Bytes frame = adts(length);
    return audio(Bytes(frame.begin() + 7, frame.end()));
}

static Bytes operator+(Bytes left, const Bytes& right)
{
    sdv::append(left, right);
    return left;
}

static void push(const std::string& path, Bytes frame)
{
    EXPECT_EQ(RecordAvi(frame.data(), int(frame.size())), 0);
    ASSERT_TRUE(g_tSdv2Avi.m_fsRec);
    const long end = ftell(g_tSdv2Avi.m_fsRec);
    fflush(g_tSdv2Avi.m_fsRec);
    EXPECT_EQ(uint64_t(end), file_size(path)) << "position and file after a call";
}

// The result of StopRecord().
static int record(const std::string& path, const Frames& frames)
{
    EXPECT_EQ(StartRecord(0, path.c_str(), 1), 0);
    for (const FrameFields& frame : frames) push(path, sdv::frame(frame));
    return StopRecord(0);
}

static Bytes recorded(const Frames& frames)
{
    TempDir dir;
    Job job;
    EXPECT_EQ(record(dir / "a.avi", frames), 0);
    expect_sound(dir / "a.avi");
    return read_file(dir / "a.avi");
}

struct Shape
{
    const char* what;
    Frames frames;
    std::vector<Chunk> want;
};

static std::vector<Shape> shapes()
{
    const auto frame = [](uint32_t number, uint8_t type = 1, size_t size = 100) {
        return picture(number, size, type);
    };
    const auto video = [=](uint32_t number, uint8_t type = 1, size_t size = 100) {
        return video_chunk(frame(number, type, size));
    };
    const Bytes pcm = noise(320, 1), odd = noise(321, 2), slot = sdv::g711_slot(pcm);
    Bytes badLength = slot, badSecond = slot, badFourth = slot;
    ++badLength[2], ++badSecond[1], ++badFourth[3];
    const Bytes aacSlot = adts(200) + adts(180) + Bytes(20, 0);

    return {
        {"video only, slots not written",
         {with_audio(frame(1, 0), 0, {slot}, {slot}), frame(2), frame(3, 0)},
         {video(1, 0), video(2), video(3, 0)}},
        {"mu-law on both sides",
         {with_audio(frame(1, 0), 2, {slot}, {slot})},
         {audio(pcm), video(1, 0), audio(pcm)}},
        {"odd sizes are padded",
         {with_audio(frame(1, 0, 101), 1, {sdv::g711_slot(odd)}, {sdv::g711_slot(odd)}), frame(2, 1, 33)},
         {audio(odd), video(1, 0, 101), audio(odd), video(2, 1, 33)}},
        {"slots with another prefix are left out",
         {with_audio(frame(1), 2, {badLength, slot, badSecond}, {badFourth, slot})},
         {audio(pcm), video(1), audio(pcm)}},
        {"slots from 516 bytes on have no prefix that fits",
         {with_audio(frame(1), 2, {}, {sdv::g711_slot(noise(512, 1))}),
          with_audio(frame(2), 2, {}, {sdv::g711_slot(noise(510, 1))})},
         {video(1), video(2), audio(noise(510, 1))}},
        {"slots shorter than a prefix", {with_audio(frame(1), 1, {{0, 1, 0}}, {{0, 1, 0}})}, {video(1)}},
        {"AAC is split behind the video",
         {with_audio(frame(1), 22, {}, {aacSlot})},
         {video(1), aac(200), aac(180)}},
        {"AAC is split before the video",
         {with_audio(frame(1), 22, {aacSlot}, {aacSlot})},
         {aac(200), aac(180), video(1), aac(200), aac(180)}},
        {"AAC longer than its slot",
         {with_audio(frame(1), 22, {}, {adts(50) + adts(30, 31)})},
         {video(1), aac(50)}},
        {"AAC that just fills its slot",
         {with_audio(frame(1), 22, {}, {adts(50) + adts(30)})},
         {video(1), aac(50), aac(30)}},
        {"AAC shorter than its header",
         {with_audio(frame(1), 22, {}, {adts(50) + adts(30, 6)})},
         {video(1), aac(50)}},
        {"empty AAC, and a rest of 7 bytes",
         {with_audio(frame(1), 22, {}, {adts(7) + adts(41) + adts(7)})},
         {video(1), aac(7), aac(41)}},
        {"kinds above 1 are no key frames", {frame(1, 2), frame(2, 255)}, {video(1, 2), video(2, 255)}},
        {"code 3 is not taken for audio", {with_audio(frame(1), 3, {slot}, {slot})}, {video(1)}},
        {"no video in a frame", {with_audio(frame(1, 0, 0), 2, {}, {slot})}, {video(1, 0, 0), audio(pcm)}},
        {"the first code stays",
         {with_audio(frame(1), 2, {}, {slot}), with_audio(frame(2), 22, {}, {adts(300)}),
          with_audio(frame(3), 1, {}, {slot})},
         {video(1), audio(pcm), video(2), video(3), audio(pcm)}},
        {"number 0 is dropped", {frame(0, 0), frame(1), with_audio(frame(0), 2, {}, {slot})}, {video(1)}},
    };
}

TEST(Recorder, ChunksByFrameShape)
{
    for (const Shape& shape : shapes()) {
        SCOPED_TRACE(shape.what);
        TempDir dir;
        Job job;
        EXPECT_EQ(record(dir / "a.avi", shape.frames), 0);
        expect_chunks(dir / "a.avi", shape.want);
        EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, int(shape.want.size()));
        EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    }
}

TEST(Recorder, FramesThatLieAreDropped)
{
    struct
    {
        const char* what;
        size_t length;
        uint32_t video;
        uint16_t slots, slotSize;
    } const rows[] = {
        {"nothing", 0, 0, 0, 0},
        {"cut header", 31, 0, 0, 0},
        {"video beyond", 132, 101, 0, 0},
        {"slots behind beyond", 132, 90, 0x0001, 11},
        {"slots before", 132, 90, 0x0100, 11},
        {"video wraps", 132, 0xFFFFFFFF, 0, 0},
        {"video wraps with slots", 132, 0xFFFFFFF0, 0x0001, 0x20},
        {"most slots", 132, 0, 0xFFFF, 0xFFFF},
    };
    for (const uint16_t mode : {21, 31}) {
        TempDir dir;
        sdv::FileFields file;
        file.mode = mode;
        Job job(file);
        ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
        push(dir / "a.avi", sdv::frame(mu_law(1)));
        for (const auto& row : rows) {
            SCOPED_TRACE(row.what);
            S_FrameHeader header = {};
            header.u32FrameID = 0x02000000;
            header.u32FrameNO = 5;
            header.u32VStreamLen = row.video;
            header.u16AFrames = row.slots;
            header.u16AFrameSize = row.slotSize;
            header.u8ACoder = 2;
            Bytes frame(32 + row.length);
            memcpy(frame.data(), &header, 32);
            frame.resize(row.length);
            frame.shrink_to_fit();
            push(dir / "a.avi", frame);
            EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 2);
        }
        Bytes locked = sdv::frame(picture(6));
        sdv::encipher(locked, Bytes(16, 1));
        if (mode == 21) push(dir / "a.avi", locked);
        EXPECT_EQ(StopRecord(0), 0);
        expect_chunks(dir / "a.avi", {video_chunk(picture(1)), audio(noise(320, 1))});
    }
}

TEST(Recorder, LateAudioGivesTheTwoStreamFile)
{
    const FrameFields aacFrame = with_audio(picture(50, 77), 22, {adts(99)}, {adts(99)});
    FrameFields announced = picture(50, 77);
    announced.audioCode = 1;
    const std::pair<size_t, FrameFields> rows[] = {
        {1, mu_law(50)}, {40, mu_law(50, 61)}, {3, aacFrame}, {2, announced}};
    for (const auto& [silent, first] : rows) {
        Frames frames;
        for (uint32_t i = 1; i <= silent; ++i)
            frames.push_back(picture(i, i == 3 ? 333 : 60001, i == 1 ? 0 : 1));
        frames.push_back(first);
        frames.push_back(first);
        Frames early = frames;
        early[0].audioCode = first.audioCode;
        EXPECT_TRUE(recorded(frames) == recorded(early))
            << silent << " frames, code " << int(first.audioCode);
    }
}

TEST(Recorder, SecondRecordingInOneJobIsLikeAFirst)
{
    const Frames frames = {mu_law(1), mu_law(2, 31), mu_law(3)};
    const Bytes first = recorded(frames);
    TempDir dir;
    Job job;
    ASSERT_EQ(record(dir / "other.avi", {mu_law(7), mu_law(8)}), 0);
    EXPECT_EQ(record(dir / "again.avi", frames), 0);
    expect_sound(dir / "again.avi");
    EXPECT_TRUE(read_file(dir / "again.avi") == first);
}

TEST(Recorder, StartWhileOpenGoesOn)
{
    const Frames frames = {mu_law(1), mu_law(2, 31), mu_law(3)};
    const Bytes uninterrupted = recorded(frames);
    for (const size_t interrupted : {0u, 1u, 2u}) {
        TempDir dir;
        Job job;
        ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
        for (size_t i = 0; i < frames.size(); ++i) {
            if (i == interrupted) {
                EXPECT_EQ(StartRecord(0, (dir / "b.avi").c_str(), 1), -9);
            }
            push(dir / "a.avi", sdv::frame(frames[i]));
        }
        EXPECT_EQ(StopRecord(0), 0);
        EXPECT_FALSE(exists(dir / "b.avi"));
        expect_sound(dir / "a.avi");
        EXPECT_TRUE(read_file(dir / "a.avi") == uninterrupted);
    }
}

TEST(Recorder, StartAndStopWithoutFrames)
{
    TempDir dir;
    sdv::FileFields file;
    file.sampleRate = 16000;
    file.channels = 2;
    Job job(file);
    EXPECT_EQ(StopRecord(0), 0);
    EXPECT_EQ(StartRecord(0, nullptr, 1), -99);
    EXPECT_EQ(g_tSdv2Avi.m_iAudioSampleRate, 16000);
    EXPECT_EQ(g_tSdv2Avi.m_iAudioChannel, 2);
    EXPECT_EQ(g_tSdv2Avi.m_iRecFileType, 0);
    EXPECT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    for (const char* bad : {"none/a.avi", "", "pipe"}) {
        EXPECT_EQ(StartRecord(0, (dir / bad).c_str(), 1), -9) << bad;
        EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    }
    EXPECT_TRUE(exists(dir / "pipe"));

    EXPECT_EQ(record(dir / "a.avi", {}), 0);
    const Bytes bare = read_file(dir / "a.avi");
    ASSERT_EQ(bare.size(), 212u);
    EXPECT_EQ(number_at(bare, 4), 0u);

    ASSERT_EQ(StartRecord(0, (dir / "b.avi").c_str(), 1), 0);
    push(dir / "b.avi", sdv::frame(picture(1)));
    g_tSdv2Avi.m_iRecFileType = 0;
    EXPECT_EQ(StopRecord(0), 0);
    EXPECT_EQ(file_size(dir / "b.avi"), 224u + 108u) << "only closed";
    EXPECT_EQ(HVDecReset(nullptr, 1), 0);
}

TEST(Recorder, AudioSlotsAreChecked)
{
    struct
    {
        int code;
        const char* slot;
        int length, result;
    } const rows[] = {
        {1, "00010200ffffffff", 8, 1},   {2, "00010200ffffffff", 8, 1}, {3, "00010200ffffffff", 8, 1},
        {2, "00010200ffffffffff", 9, 1}, {2, "00010000", 4, 1},         {2, "00010000", 3, 0},
        {2, "01010200ffffffff", 8, 0},   {2, "00000200ffffffff", 8, 0}, {2, "00010300ffffffff", 8, 0},
        {2, "00010201ffffffff", 8, 0},   {22, "ffffffff", 4, 1},        {22, "ffffff", 3, 0},
        {0, "00010000", 4, 0},           {-1, "00010000", 4, 0},        {4, "00010000", 4, 0},
        {21, "00010000", 4, 0},          {23, "00010000", 4, 0},
    };
    for (const auto& row : rows) {
        Bytes slot = hex(row.slot);
        EXPECT_EQ(CheckAudio(row.code, slot.data(), row.length), row.result) << row.code << " " << row.slot;
    }
}

// A file that may grow to limit bytes only.
static int record_within(rlim_t limit, const std::string& path, const Frames& frames)
{
    return in_child([&] {
        Job job;
        signal(SIGXFSZ, SIG_IGN);
        const rlimit size = {limit, limit};
        if (setrlimit(RLIMIT_FSIZE, &size) != 0 || StartRecord(0, path.c_str(), 1) != 0) return 99;
        for (const FrameFields& fields : frames) {
            Bytes frame = sdv::frame(fields);
            if (RecordAvi(frame.data(), int(frame.size())) != 0) return 98;
        }
        return StopRecord(0);
    });
}

TEST(Recorder, WriteErrorsAreTold)
{
    TempDir dir;
    const Frames frames = {mu_law(1, 20000), mu_law(2, 20001), mu_law(3, 5)};
    const rlim_t whole = recorded(frames).size();
    for (const rlim_t limit : {rlim_t(0), rlim_t(100), rlim_t(327), rlim_t(335), rlim_t(10000), rlim_t(20336),
                               whole - 200, whole - 97, whole - 16, whole - 1})
        EXPECT_EQ(record_within(limit, dir / "a.avi", frames), 1) << limit;
    EXPECT_EQ(record_within(whole, dir / "a.avi", frames), 0);
    expect_sound(dir / "a.avi");
}

TEST(Recorder, LateAudioWithoutRoomLeavesVideoOnly)
{
    TempDir dir;
    const Frames frames = {picture(1, 5000, 0), mu_law(2, 4000)};
    const rlim_t whole = recorded(frames).size();
    EXPECT_EQ(record_within(whole - 104, dir / "a.avi", frames), 1);
    const Bytes bytes = read_file(dir / "a.avi");
    ASSERT_EQ(bytes.size(), whole - 104);
    EXPECT_EQ(number_at(bytes, 4), whole - 104 - 8);
    EXPECT_EQ(number_at(bytes, 16), 192u);
    EXPECT_EQ(number_at(bytes, 56), 1u) << "streams";
    EXPECT_EQ(number_at(bytes, 224), 0x63643030u);
    EXPECT_TRUE(std::equal(bytes.begin() + 232, bytes.begin() + 5232, frames[0].video.begin()))
        << "nothing moved";
}

TEST(Recorder, FileEndsBelowFourGiB)
{
    const uint64_t limit = (uint64_t(1) << 32) - 65536;
    TempDir dir;
    Job job;
    ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
    push(dir / "a.avi", sdv::frame(picture(1)));
    const uint64_t far = limit - 5000; // a hole stands for the chunks of hours
    if (fseeko(g_tSdv2Avi.m_fsRec, off_t(far), SEEK_SET) != 0) GTEST_SKIP() << "no sparse files here";
    g_tSdv2Avi.m_iAviOffset = int32_t(uint32_t(far - 220));
    for (uint32_t i = 2; i < 12; ++i) {
        Bytes frame = sdv::frame(picture(i, 1000));
        EXPECT_EQ(RecordAvi(frame.data(), int(frame.size())), 0);
    }
    const uint32_t frames = uint32_t(g_tSdv2Avi.m_iTotalFrames);
    EXPECT_EQ(StopRecord(0), 2);

    const uint64_t size = file_size(dir / "a.avi"), moviEnd = far + (frames - 1) * 1008;
    EXPECT_GT(frames, 3u);
    EXPECT_LT(frames, 7u);
    EXPECT_LE(size, limit);
    EXPECT_EQ(size, moviEnd + 8 + 16 * frames);
    Bytes head(224), entry(16);
    std::ifstream in(dir / "a.avi", std::ios::binary);
    in.read(reinterpret_cast<char*>(head.data()), 224);
    in.seekg(std::streamoff(size - 16)).read(reinterpret_cast<char*>(entry.data()), 16);
    EXPECT_EQ(number_at(head, 4), uint32_t(size - 8));
    EXPECT_EQ(number_at(head, 48), frames);
    EXPECT_EQ(number_at(head, 216), uint32_t(moviEnd - 220));
    EXPECT_EQ(number_at(entry, 8), uint32_t(moviEnd - 1008 - 220));
}
