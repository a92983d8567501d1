#include <algorithm>
#include <cstring>
#include <thread>

#include "support.h"

static int push(Bytes piece)
{
    return RecordAviEx(piece.data(), int(piece.size()));
}

static void push_in_pieces(const Bytes& bytes, size_t size)
{
    for (size_t at = 0; at < bytes.size(); at += size)
        ASSERT_EQ(
            push(Bytes(bytes.begin() + long(at), bytes.begin() + long(std::min(at + size, bytes.size())))),
            0);
}

TEST(Stream, PiecesGiveTheConversionsBytes)
{
    Bytes key(16, 0x33), frames;
    sdv::FileFields file;
    for (uint32_t i = 1; i <= 30; ++i) {
        sdv::FrameFields fields = picture(i, 300 * i + i % 2, i % 10 == 1 ? 0 : 1);
        fields.audioCode = 2;
        if (i % 2) fields.audioAfter = {sdv::g711_slot(noise(320, i))};
        Bytes frame = sdv::frame(fields);
        if (i % 3 == 0) sdv::encipher(frame, key);
        sdv::append(frames, frame);
        if (i % 7 == 0) sdv::append(frames, Bytes(i * 11, uint8_t(i == 14 ? 0 : 0xAA)));
    }
    TempDir dir;
    Bytes whole = sdv::file_header(file);
    sdv::append(whole, frames);
    write_file(dir / "in", whole);
    SetDecryptKey(key.data(), 16);
    ASSERT_EQ(convert(dir / "in", dir / "whole"), (Outcome{0, 100, ""}));
    EXPECT_EQ(expect_sound(dir / "whole").chunks.size(), 45u);
    for (const size_t size : {1, 7, 33, 100000}) {
        Job job(file);
        ASSERT_EQ(StartRecord(0, (dir / "pieces").c_str(), 1), 0);
        push_in_pieces(frames, size);
        EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 0);
        EXPECT_EQ(StopRecordEx(0), 0);
        EXPECT_TRUE(read_file(dir / "pieces") == read_file(dir / "whole")) << size;
    }
    SetDecryptKey(nullptr, 0);
}

struct Mode
{
    uint16_t mode;
    uint32_t flag;
    bool found;
};

TEST(Stream, FramesByMode)
{
    const Mode rows[] = {
        {21, 0x02000000, true},  {41, 0x02000000, true},  {22, 0x02000000, true},  {31, 0x03000000, true},
        {32, 0x04000000, true},  {21, 0x03000000, false}, {31, 0x02000000, false}, {32, 0x03000000, false},
        {11, 0x00800000, true},  {11, 0x55830000, true},  {11, 0x00820000, true},  {11, 0x00840000, false},
        {11, 0x00800001, false}, {11, 0x02000000, false}, {0, 0x02000000, false},
    };
    for (const Mode& row : rows) {
        SCOPED_TRACE(testing::Message() << row.mode << ", flag " << row.flag);
        TempDir dir;
        sdv::FileFields file;
        file.mode = row.mode;
        Job job(file);
        ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
        std::vector<sdv::FrameFields> frames = {picture(1, 300), picture(2, 80, 0)};
        Bytes bytes(3, 0x77);
        for (sdv::FrameFields& fields : frames) {
            fields.flag = row.flag;
            Bytes frame = sdv::frame(fields);
            if (row.mode == 11) frame[5] = uint8_t(frame.size() >> 8), frame[6] = uint8_t(frame.size());
            sdv::append(bytes, frame);
            sdv::append(bytes, hex("0000800000001f000000"));     // as mode 11 reads it: 31 bytes, no frame
            sdv::append(bytes, hex("00000002ff00200000000000")); // as the other modes do: sizes do not add up
        }
        sdv::append(bytes, Bytes(40, 0x77));
        push_in_pieces(bytes, 50);
        EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 31);
        EXPECT_EQ(StopRecordEx(0), 0);
        if (row.found)
            expect_chunks(dir / "a.avi", video_chunks(frames));
        else
            EXPECT_EQ(file_size(dir / "a.avi"), 212u);
    }
}

TEST(Stream, FrameInThreePieces)
{
    TempDir dir;
    Job job;
    const Bytes frame = sdv::frame(picture(1)), next = sdv::frame(picture(2, 2097152 - 32));
    push(frame); // nothing is open: consumed, not written
    EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 0);
    ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
    for (const auto& [from, to] : {std::pair{0, 10}, {10, 30}, {30, int(frame.size())}}) {
        EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 0);
        EXPECT_EQ(push(Bytes(frame.begin() + from, frame.begin() + to)), 0);
    }
    EXPECT_EQ(g_tSdv2Avi.m_iTotalFrames, 1);
    EXPECT_EQ(push(next), 0);
    EXPECT_EQ(push(Bytes(frame.begin(), frame.begin() + 40)), 0);
    EXPECT_EQ(StopRecordEx(0), 0);
    EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 40) << "an unfinished frame stays";
    expect_chunks(dir / "a.avi", video_chunks({picture(1), picture(2, 2097152 - 32)}));
}

TEST(Stream, PiecesThatDoNotFitAreRefusedWhole)
{
    const std::string full = "-------buffer is not large enough-------";
    TempDir dir;
    Job job;
    ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
    const sdv::FrameFields big = picture(1, 2000000, 0);
    const Bytes frame = sdv::frame(big);
    const size_t held = 1000, room = 6291456 - held;
    push(Bytes(frame.begin(), frame.begin() + long(held)));
    Bytes rest(frame.begin() + long(held), frame.end());
    rest.resize(room + 1, 0x77);
    const struct
    {
        unsigned char* bytes;
        int length;
        std::string said;
    } refusals[] = {{rest.data(), int(room) + 1, full},
                    {rest.data(), 0x7FFFFFFF, full},
                    {rest.data(), -1, ""},
                    {rest.data(), -2147483647 - 1, ""},
                    {nullptr, 1, ""}};
    for (const auto& row : refusals) {
        int result = 0;
        EXPECT_EQ(written_to(2, [&] { result = RecordAviEx(row.bytes, row.length); }), row.said)
            << row.length;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, int(held));
        EXPECT_EQ(memcmp(g_tSdv2Avi.m_pStreamBuf, frame.data(), held), 0);
    }
    EXPECT_EQ(RecordAviEx(rest.data(), 0), 0);
    EXPECT_EQ(RecordAviEx(rest.data(), int(room)), 0);
    EXPECT_EQ(g_tSdv2Avi.m_iStreamLen, 31);
    EXPECT_EQ(StopRecordEx(0), 0);
    expect_chunks(dir / "a.avi", video_chunks({big}));

    unsigned char* const buffer = g_tSdv2Avi.m_pStreamBuf;
    g_tSdv2Avi.m_pStreamBuf = nullptr; // as when no memory was to be had
    g_tSdv2Avi.m_iStreamLen = 0;
    EXPECT_EQ(push(frame), -1);
    g_tSdv2Avi.m_pStreamBuf = buffer;
}

TEST(Stream, PushAndStopFromTwoThreads)
{
    TempDir dir;
    Job job;
    ASSERT_EQ(StartRecord(0, (dir / "a.avi").c_str(), 1), 0);
    push(sdv::frame(picture(1, 100, 0)));
    two_at_once([](int who) {
        if (who == 1)
            EXPECT_EQ(StopRecordEx(0), 0);
        else
            for (uint32_t i = 2; i < 200; ++i) EXPECT_EQ(push(sdv::frame(picture(i, 999))), 0);
    });
    EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    EXPECT_GE(expect_sound(dir / "a.avi").chunks.size(), 1u);
}
