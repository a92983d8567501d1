#include "support.h"

static int push(Bytes piece)
{
    return RecordAviEx(piece.data(), int(piece.size()));
}

TEST(Stream, PiecesGiveTheConversionsBytes)
{
    Bytes key(16, 0x33), frames;
    for (uint32_t i = 1; i <= 30; ++i) {
        sdv::FrameFields fields = with_audio(picture(i, 300 * i + i % 2, i % 10 == 1 ? 0 : 1), 2, {}, {});
        if (i % 2) fields.audioAfter = {sdv::g711_slot(noise(320, i))};
        Bytes frame = sdv::frame(fields);
        if (i % 3 == 0) sdv::encipher(frame, key);
        sdv::append(frames, frame);
        if (i % 7 == 0) sdv::append(frames, Bytes(i * 11, uint8_t(i == 14 ? 0 : 0xAA)));
    }
    TempDir dir;
    write_file(dir / "in", recording({}) + frames);
    SetDecryptKey(key.data(), 16);
    ASSERT_EQ(convert(dir / "in", dir / "whole"), done);
    EXPECT_EQ(sound_chunks(dir / "whole").size(), 45u);
    for (const size_t size : {1, 7, 33, 100000}) {
        Recording open;
        push_in_pieces(frames, size);
        EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 0);
        EXPECT_EQ(StopRecordEx(0), 0);
        EXPECT_TRUE(same_bytes(read_file(open.path), read_file(dir / "whole"))) << size;
    }
    SetDecryptKey(nullptr, 0);
}

TEST(Stream, TwoThreadsPushWholeFrames)
{
    Recording open;
    two_at_once([](int who) {
        const Bytes frame = sdv::frame(picture(uint32_t(who) + 1, 2000));
        for (int i = 0; i < 3000; ++i) EXPECT_EQ(push(frame), 0);
    });
    EXPECT_EQ(StopRecordEx(0), 0);
    EXPECT_EQ(sound_chunks(open.path).size(), 6000u);
}

TEST(Stream, FramesByMode)
{
    const std::tuple<uint16_t, uint32_t, bool> rows[] = {
        {21, 0x02000000, true},  {41, 0x02000000, true},  {22, 0x02000000, true},  {31, 0x03000000, true},
        {32, 0x04000000, true},  {21, 0x03000000, false}, {31, 0x02000000, false}, {32, 0x03000000, false},
        {11, 0x00800000, true},  {11, 0x55830000, true},  {11, 0x00840000, false}, {11, 0x00800001, false},
        {11, 0x02000000, false}, {0, 0x02000000, false},
    };
    for (const auto& [mode, flag, found] : rows) {
        SCOPED_TRACE(testing::Message() << mode << ", flag " << flag);
        Recording open({.mode = mode});
        Frames frames = {picture(1, 300), picture(2, 80, 0)};
        Bytes bytes(3, 0x77);
        for (sdv::FrameFields& fields : frames) {
            fields.flag = flag;
            Bytes frame = sdv::frame(fields);
            if (mode == 11) frame[5] = uint8_t(frame.size() >> 8), frame[6] = uint8_t(frame.size());
            // Behind it what is no frame: of 31 bytes, as mode 11 reads it, or sizes that do not add up.
            bytes = bytes + frame + hex("0000800000001f000000") + hex("00000002ff00200000000000");
        }
        push_in_pieces(bytes + Bytes(40, 0x77), 50);
        EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 31);
        EXPECT_EQ(StopRecordEx(0), 0);
        if (found) expect_video(open.path, frames);
        EXPECT_EQ(file_size(open.path) == 212, !found);
    }
}

TEST(Stream, PiecesThatDoNotFitAreRefusedWhole)
{
    const std::string full = "-------buffer is not large enough-------";
    const Frames frames = {picture(1), picture(2, 2097152 - 32)};
    const Bytes small = sdv::frame(frames[0]), frame = sdv::frame(frames[1]);
    const auto held = [] {
        return Bytes(g_tSdv2Avi.m_pStreamBuf, g_tSdv2Avi.m_pStreamBuf + g_tSdv2Avi.m_iStreamLen);
    };
    Recording open;
    EXPECT_EQ(push(part(small, 0, 131)), 0);
    EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 0);
    const Bytes begin = part(frame, 0, 1000);
    EXPECT_EQ(push(part(small, 131, 132) + begin), 0);
    EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 1);

    const int room = 6291456 - 1000;
    Bytes rest = part(frame, 1000, frame.size());
    rest.resize(size_t(room) + 1, 0x77);
    const std::tuple<unsigned char*, int, std::string> refusals[] = {
        {rest.data(), room + 1, full},
        {rest.data(), 0x7FFFFFFF, full},
        {rest.data(), -1, ""},
        {rest.data(), -2147483647 - 1, ""},
        {nullptr, 1, ""},
    };
    for (const auto& [bytes, length, said] : refusals) {
        EXPECT_EQ(told(2, [&] { return RecordAviEx(bytes, length); }), Told(-1, said)) << length;
        EXPECT_TRUE(same_bytes(held(), begin));
    }
    EXPECT_EQ(RecordAviEx(rest.data(), 0) | RecordAviEx(rest.data(), room), 0);
    EXPECT_EQ(push(part(small, 0, 40)), 0);
    EXPECT_EQ(StopRecordEx(0), 0);
    EXPECT_TRUE(same_bytes(held(), part(small, 0, 40))) << "an unfinished frame stays";
    EXPECT_EQ(push(part(small, 40, 132)), 0); // nothing is open: consumed, not written
    EXPECT_TRUE(held().empty());
    expect_video(open.path, frames);
}

TEST(Stream, PushAndStopFromTwoThreads)
{
    Recording open;
    push(sdv::frame(picture(1, 100, 0)));
    two_at_once([](int who) {
        for (uint32_t i = 2; who == 0 && i < 200; ++i) EXPECT_EQ(push(sdv::frame(picture(i, 999))), 0);
        EXPECT_TRUE(who == 0 || StopRecordEx(0) == 0);
    });
    EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    EXPECT_GE(sound_chunks(open.path).size(), 1u);
}
