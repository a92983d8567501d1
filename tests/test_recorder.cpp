#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "support.h"

using sdv::FrameFields;

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
    const Bytes header = hex("fff16080") + Bytes{uint8_t(claimed >> 3), uint8_t(claimed << 5 | 0x1F), 0xFC};
    return part(header, 0, length) + noise(length - std::min<size_t>(length, 7), uint32_t(length));
}

static Chunk aac(size_t length)
{
    return audio(part(adts(length), 7, length));
}

static Bytes record(const std::string& path, const Frames& frames)
{
    EXPECT_EQ(StartRecord(0, path.c_str(), 1), 0);
    for (const FrameFields& frame : frames) push_frame(sdv::frame(frame));
    EXPECT_EQ(StopRecord(0), 0);
    return read_file(path);
}

static Bytes recorded(const Frames& frames)
{
    TempDir dir;
    Job job;
    const Bytes bytes = record(dir / "a.avi", frames);
    expect_sound(dir / "a.avi");
    return bytes;
}

static Chunk video(uint32_t number, size_t size = 100, uint8_t type = 1)
{
    return {"00dc", picture(number, size, type).video, type == 0};
}

static std::vector<std::tuple<const char*, Frames, std::vector<Chunk>>> shapes()
{
    const auto one_aac = [](const Bytes& slot) { return Frames{with_audio(picture(1), 22, {}, {slot})}; };
    const Bytes pcm = noise(320, 1), slot = sdv::g711_slot(pcm), odd = noise(321, 2),
                oddSlot = sdv::g711_slot(odd), most = noise(510, 1), mostSlot = sdv::g711_slot(most),
                tooLong = sdv::g711_slot(noise(512, 1)), twoAac = adts(200) + adts(180) + Bytes(20, 0);
    const Bytes badFirst = with(slot, 0, 0x00A00101), badSecond = with(slot, 0, 0x00A00200),
                badLength = with(slot, 0, 0x00A10100), badFourth = with(slot, 0, 0x01A00100);
    return {
        {"more slots before than behind, and odd sizes are padded",
         {with_audio(picture(1, 101, 0), 1, {oddSlot, oddSlot}, {oddSlot}), picture(2, 33)},
         {audio(odd), audio(odd), video(1, 101, 0), audio(odd), video(2, 33)}},
        {"slots with another prefix are left out",
         {with_audio(picture(1), 2, {badLength, slot, badSecond}, {badFourth, slot, badFirst})},
         {audio(pcm), video(1), audio(pcm)}},
        {"no prefix fits slots of 516 bytes and more",
         {with_audio(picture(1), 2, {}, {tooLong}), with_audio(picture(2), 2, {}, {mostSlot})},
         {video(1), video(2), audio(most)}},
        {"slots shorter than a prefix, and one that is nothing else",
         {with_audio(picture(1), 1, {{0, 1, 0}}, {}), with_audio(picture(2), 1, {}, {{0, 1, 0, 0}})},
         {video(1), video(2), audio({})}},
        {"AAC is split on both sides",
         {with_audio(picture(1), 22, {twoAac}, {twoAac})},
         {aac(200), aac(180), video(1), aac(200), aac(180)}},
        {"AAC longer than its slot", one_aac(adts(50) + adts(30, 31)), {video(1), aac(50)}},
        {"AAC that just fills its slot", one_aac(adts(50) + adts(30)), {video(1), aac(50), aac(30)}},
        {"AAC shorter than its header", one_aac(adts(50) + adts(30, 6)), {video(1), aac(50)}},
        {"empty AAC, and a rest of 7", one_aac(adts(7) + adts(41) + adts(7)), {video(1), aac(7), aac(41)}},
        {"kinds above 1", {picture(1, 9, 2), picture(2, 9, 255)}, {video(1, 9, 2), video(2, 9, 255)}},
        {"code 3 is not taken for audio", {with_audio(picture(1), 3, {slot}, {slot})}, {video(1)}},
        {"no video in a frame", {with_audio(picture(1, 0, 0), 2, {}, {slot})}, {video(1, 0, 0), audio(pcm)}},
        {"the first code stays",
         {mu_law(1), with_audio(picture(2), 22, {}, {adts(300)}), with_audio(picture(3), 1, {}, {slot})},
         {video(1), audio(pcm), video(2), video(3), audio(pcm)}},
        {"number 0 is dropped", {picture(0), picture(1), mu_law(0)}, {video(1)}},
    };
}

TEST(Recorder, ChunksByFrameShape)
{
    for (const auto& [what, frames, want] : shapes()) {
        SCOPED_TRACE(what);
        TempDir dir;
        Job job;
        record(dir / "a.avi", frames);
        expect_chunks(dir / "a.avi", want);
    }
    for (const int code : {-1, 0, 1, 2, 3, 4, 21, 22, 23}) // 3 passes, though no stream is taken for it
        EXPECT_EQ(CheckAudio(code, hex("00010200ffffffff").data(), 8), (code >= 1 && code <= 3) || code == 22)
            << code;
    EXPECT_EQ(CheckAudio(22, hex("00010200").data(), 3), 0);
    EXPECT_EQ(std::pair(CheckAudio(22, nullptr, -4), CheckAudio(2, nullptr, 4)), std::pair(1, 0));
}

// Callers may choose by m_iDestType what becomes of the slots behind the video; the header keeps a slot's
// size.
TEST(Recorder, SlotsByTheDestinationThatACallerSets)
{
    const Bytes pcm = noise(320, 1), g711 = sdv::g711_slot(pcm), split = adts(50) + adts(30);
    const std::tuple<uint8_t, int, Bytes, std::vector<Chunk>> rows[] = {
        {2, 1, g711, {audio(pcm), video(1)}},
        {22, 0, split, {aac(50), aac(30), video(1), audio(part(split, 4, split.size()))}},
        {22, 1, split, {aac(50), aac(30), video(1), aac(50), aac(30)}},
    };
    for (const auto& [code, destination, slot, want] : rows) {
        Recording open;
        g_tSdv2Avi.m_iHaveAudio = code;
        g_tSdv2Avi.m_iDestType = destination;
        push_frame(sdv::frame(with_audio(picture(1), code, {slot}, {slot})));
        EXPECT_EQ(g_tSdv2Avi.m_AudioFrameHeader.dwFrameSize, slot.size() - 4);
        EXPECT_EQ(StopRecord(0), 0);
        expect_chunks(open.path, want);
    }
}

TEST(Recorder, FramesThatLieAreDropped)
{
    const std::tuple<const char*, size_t, uint32_t, uint16_t, uint16_t> rows[] = {
        {"nothing", 0, 0, 0, 0},
        {"cut header", 31, 0, 0, 0},
        {"video beyond", 132, 101, 0, 0},
        {"slots behind beyond", 132, 90, 0x0001, 11},
        {"slots before beyond", 132, 90, 0x0100, 11},
        {"video wraps", 132, 0xFFFFFFFF, 0, 0},
        {"video wraps with slots", 132, 0xFFFFFFF0, 0x0001, 0x20},
        {"most slots", 132, 0, 0xFFFF, 0xFFFF},
    };
    Recording open;
    push_frame(sdv::frame(mu_law(1)));
    for (const auto& [what, length, video, slots, slotSize] : rows) {
        SCOPED_TRACE(what);
        const Bytes header = words(0x02000000, 0, 0, 5, 0, video, half(slots), half(slotSize), 2);
        push_frame(part(header + Bytes(length, 0), 0, length)); // the sanitizer catches a byte beyond
        EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 2);
    }
    EXPECT_EQ(StopRecord(0), 0);
    expect_chunks(open.path, {video(1), audio(noise(320, 1))});
}

TEST(Recorder, LateAudioGivesTheTwoStreamFile)
{
    const std::pair<size_t, FrameFields> rows[] = {
        {1, mu_law(50)},
        {40, mu_law(50, 61)},
        {3, with_audio(picture(50, 77), 22, {adts(99)}, {adts(99)})},
        {2, with_audio(picture(50, 77), 1, {}, {})},
    };
    for (const auto& [silent, heard] : rows) {
        Frames frames(2, heard);
        for (uint32_t i = 1; i <= silent; ++i)
            frames.insert(frames.begin(), picture(i, i == 3 ? 333 : 60001));
        Frames early = frames;
        early[0].audioCode = heard.audioCode;
        EXPECT_TRUE(same_bytes(recorded(frames), recorded(early))) << silent << " frames";
    }
}

TEST(Recorder, FurtherStartsInOneJob)
{
    const Frames frames = {mu_law(1), mu_law(2, 31), mu_law(3)};
    const Bytes want = recorded(frames);
    for (const size_t interrupted : {0u, 1u, 2u}) {
        Recording open; // a start while one is open is refused, and that one goes on
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_TRUE(i != interrupted || StartRecord(0, (open.dir / "b.avi").c_str(), 1) == -9);
            push_frame(sdv::frame(frames[i]));
        }
        EXPECT_EQ(StopRecord(0), 0);
        EXPECT_FALSE(exists(open.dir / "b.avi"));
        EXPECT_TRUE(same_bytes(read_file(open.path), want));

        record(open.dir / "other.avi", {mu_law(7, 200), mu_law(8)});
        EXPECT_TRUE(same_bytes(record(open.dir / "again.avi", frames), want)) << "like a first one";
    }
}

TEST(Recorder, EveryFileIsLaidOut)
{
    TempDir dir;
    Job job;
    record(dir / "a.avi", {picture(1)});
    push_frame(sdv::frame(picture(2))); // into nothing
    Inner_InitializeRecord((dir / "b.avi").c_str());
    g_tSdv2Avi.m_iAviInitTimes = 0;
    push_frame(sdv::frame(picture(3)));
    EXPECT_EQ(g_tSdv2Avi.m_iMoviBeginPos + ftell(g_tSdv2Avi.m_fsRec), 220 + 224 + 108);
}

TEST(Recorder, StartAndStopWithoutFrames)
{
    TempDir dir;
    Job job;
    EXPECT_EQ(StopRecord(0), 0);
    EXPECT_EQ(StartRecord(0, nullptr, 1), -99);
    EXPECT_EQ(g_tSdv2Avi.m_iRecFileType, 0);
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(StartRecord(0, (dir / "none/a.avi").c_str(), 1), -9);
    EXPECT_EQ(StartRecord(0, (dir / "pipe").c_str(), 1), -9);
    EXPECT_TRUE(exists(dir / "pipe") && !g_tSdv2Avi.m_fsRec);

    ASSERT_EQ(StartRecord(0, (dir / "b.avi").c_str(), 1), 0);
    push_frame(sdv::frame(picture(1)));
    g_tSdv2Avi.m_iRecFileType = 0;
    EXPECT_EQ(StopRecord(0), 0);
    EXPECT_EQ(file_size(dir / "b.avi"), 224u + 108u) << "only closed";

    const Bytes bare = record(dir / "a.avi", {});
    ASSERT_EQ(bare.size(), 212u);
    EXPECT_TRUE(same_bytes(part(bare, 0, 8), words("RIFF", 0)));
    EXPECT_TRUE(same_bytes(part(bare, 48, 52), words(0))) << "nothing is left of the recording before";
}

// In a process whose files cannot grow beyond the limit.
static int record_within(uint64_t limit, const std::string& path, const Frames& frames)
{
    return in_child([&] {
        limit_files(limit);
        Job job;
        if (StartRecord(0, path.c_str(), 1) != 0) return 99;
        for (const FrameFields& frame : frames) push_frame(sdv::frame(frame));
        return StopRecord(0);
    });
}

TEST(Recorder, WriteErrorsAreTold)
{
    TempDir dir;
    const Frames frames = {mu_law(1, 20000), mu_law(2, 20001), mu_law(3, 5)};
    const uint64_t whole = recorded(frames).size();
    for (const uint64_t missing : {1, 49, 97, 327, 335, 4096, 20336, 30000, 40960})
        EXPECT_EQ(record_within(whole - missing, dir / "a.avi", frames), 1) << missing;
    EXPECT_EQ(record_within(whole, dir / "a.avi", frames), 0);
    expect_sound(dir / "a.avi");
}

TEST(Recorder, LateAudioWithoutRoomLeavesVideoOnly)
{
    TempDir dir;
    const Frames frames = {picture(1, 5000, 0), mu_law(2, 4000)};
    const uint32_t size = uint32_t(recorded(frames).size()) - 104;
    for (const uint32_t spare : {0, 60, 103}) { // 60 and more hold the stream headers, but no index
        EXPECT_EQ(record_within(size + spare, dir / "a.avi", frames), 1);
        const Bytes bytes = read_file(dir / "a.avi");
        ASSERT_EQ(bytes.size(), size) << spare;
        EXPECT_TRUE(same_bytes(part(bytes, 4, 20), words(size - 8, "AVI ", "LIST", 192)));
        EXPECT_TRUE(same_bytes(part(bytes, 56, 60), words(1))) << "streams";
        EXPECT_TRUE(same_bytes(part(bytes, 224, 5232), words("00dc", 5000) + frames[0].video)) << "moved";
    }
}

TEST(Recorder, FileEndsBelowFourGiB)
{
    const uint64_t limit = (uint64_t(1) << 32) - 65536, far = limit - 5000; // a hole stands for hours
    Recording open;
    push_frame(sdv::frame(picture(1)));
    if (fseeko(g_tSdv2Avi.m_fsRec, off_t(far), SEEK_SET) != 0) GTEST_SKIP() << "no sparse files here";
    g_tSdv2Avi.m_iAviOffset = int32_t(uint32_t(far - 220));
    for (uint32_t i = 2; i < 12; ++i) push_frame(sdv::frame(picture(i, 1000)));
    const uint32_t frames = uint32_t(g_tSdv2Avi.m_iTotalFrames);
    EXPECT_EQ(StopRecord(0), 2);

    const uint64_t size = file_size(open.path), moviEnd = far + (frames - 1) * 1008;
    EXPECT_TRUE(frames > 3 && frames < 7) << frames;
    EXPECT_LE(size, limit);
    EXPECT_EQ(size, moviEnd + 8 + 16 * frames);
    std::ifstream in(open.path, std::ios::binary);
    const auto number_at = [&](uint64_t at) {
        uint32_t number = 0;
        in.seekg(std::streamoff(at)).read(reinterpret_cast<char*>(&number), 4);
        return number;
    };
    EXPECT_EQ(number_at(4), size - 8) << "RIFF size";
    EXPECT_EQ(number_at(48), frames);
    EXPECT_EQ(number_at(216), moviEnd - 220) << "movi list";
    EXPECT_EQ(number_at(size - 8), moviEnd - 1008 - 220) << "offset of the last index entry";
}

// What a frame has gathered so far counts: its last chunks do not fit.
TEST(Recorder, AFrameMayFitInPart)
{
    const uint64_t limit = (uint64_t(1) << 32) - 65536;
    const Bytes pcm = noise(500, 1), slot = sdv::g711_slot(pcm);
    Recording open;
    push_frame(sdv::frame(mu_law(1)));
    if (fseeko(g_tSdv2Avi.m_fsRec, off_t(limit - 3000), SEEK_SET) != 0)
        GTEST_SKIP() << "no sparse files here";
    push_frame(sdv::frame(with_audio(picture(2, 1000), 2, {}, {slot, slot, slot, slot, slot})));
    EXPECT_GT(g_tSdv2Avi.m_iTotalFrames, 3);
    EXPECT_EQ(StopRecord(0), 2);
    EXPECT_LT(file_size(open.path), limit);
}
