#include <unistd.h>

#include <cstring>

#include "support.h"

struct Field
{
    uint32_t offset, size, value;
};

static uint32_t fcc(const char* four)
{
    return number_at(Bytes(four, four + 4), 0);
}

struct Layout
{
    const char* what;
    int haveAudio, destType, rate, channels;
    Bytes config; // AAC
};

// 352 x 288 at 25, five video chunks of at most 100000 bytes, audio chunks as the layout says.
static std::vector<Field> video_fields(const Layout& is)
{
    const bool audio = is.haveAudio != 0;
    return {
        {0, 4, fcc("RIFF")},
        {4, 4, 0x12345678},
        {8, 4, fcc("AVI ")},
        {12, 4, fcc("LIST")},
        {16, 4, audio ? 296u : 192u},
        {20, 4, fcc("hdrl")},
        {24, 4, fcc("avih")},
        {28, 4, 56},
        {32, 4, 40000},
        {36, 4, 5u * uint32_t(is.rate)},
        {40, 4, 0},
        {44, 4, audio ? 0x910u : 0x810u},
        {48, 4, 5},
        {52, 4, 0},
        {56, 4, audio ? 2u : 1u},
        {60, 4, 120480},
        {64, 4, 1920},
        {68, 4, 1080},
        {72, 4, 0},
        {76, 4, 0},
        {80, 4, 0},
        {84, 4, 0},
        {88, 4, fcc("LIST")},
        {92, 4, 116},
        {96, 4, fcc("strl")},
        {100, 4, fcc("strh")},
        {104, 4, 56},
        {108, 4, fcc("vids")},
        {112, 4, fcc("H264")},
        {116, 4, 0},
        {120, 2, 0},
        {122, 2, 0},
        {124, 4, 0},
        {128, 4, 1},
        {132, 4, 13},
        {136, 4, 0},
        {140, 4, 5},
        {144, 4, 120480},
        {148, 4, 0xFFFFFFFF},
        {152, 4, 0},
        {156, 2, 0},
        {158, 2, 0},
        {160, 2, 1920},
        {162, 2, 1080},
        {164, 4, fcc("strf")},
        {168, 4, 40},
        {172, 4, 40},
        {176, 4, 1920},
        {180, 4, 1080},
        {184, 2, 1},
        {186, 2, 0},
        {188, 4, fcc("H264")},
        {192, 4, 6220800},
        {196, 4, 0},
        {200, 4, 0},
        {204, 4, 0},
        {208, 4, 0},
    };
}

static std::vector<Field> audio_fields(const Layout& is)
{
    const bool aac = is.destType == 1;
    const uint32_t rate = uint32_t(is.rate);
    return {
        {212, 4, fcc("LIST")},
        {216, 4, 96},
        {220, 4, fcc("strl")},
        {224, 4, fcc("strh")},
        {228, 4, 56},
        {232, 4, fcc("auds")},
        {236, 4, aac ? 0u : 1u},
        {240, 4, aac ? 1u : 0u},
        {244, 2, 0},
        {246, 2, 0},
        {248, 4, 0},
        {252, 4, aac ? 1024u : 1u},
        {256, 4, rate},
        {260, 4, 0},
        {264, 4, aac ? 7u : 2240u},
        {268, 4, aac ? 8192u : 16000u},
        {272, 4, 0xFFFFFFFF},
        {276, 4, aac ? 0u : 1u},
        {280, 4, 0},
        {284, 4, 0},
        {288, 4, fcc("strf")},
        {292, 4, 20},
        {296, 2,
         aac                 ? 0xFFu
         : is.haveAudio == 1 ? 6u
                             : 7u},
        {298, 2, aac ? 2u : uint32_t(is.channels)},
        {300, 4, rate},
        {304, 4, aac ? 1956u : rate},
        {308, 2, aac ? 4096u : 1u},
        {310, 2, aac ? 0u : 8u},
        {312, 2, aac ? 2u : 0u},
        {314, 2, aac ? number_at(is.config, 0, 2) : 0u},
    };
}

TEST(AviHeaders, EveryByteOfEveryLayout)
{
    const Layout layouts[] = {
        {"video only", 0, 0, 8000, 1, {}},
        {"mu-law", 2, 0, 8000, 1, {}},
        {"A-law, two channels", 1, 0, 16000, 2, {}},
        {"AAC at 48000", 22, 1, 48000, 2, hex("1190")},
        {"AAC at 32000", 22, 1, 32000, 1, hex("1290")},
        {"AAC at 16000", 22, 1, 16000, 2, hex("1410")},
        {"AAC at 8000", 22, 1, 8000, 2, hex("1590")},
        {"AAC at 44100", 22, 1, 44100, 2, hex("1590")},
    };
    for (const Layout& is : layouts) {
        SCOPED_TRACE(is.what);
        TempDir dir;
        sdv::FileFields file;
        file.frameRate = 13;
        file.channels = uint8_t(is.channels);
        file.sampleRate = uint32_t(is.rate);
        Job job(file);
        ASSERT_EQ(StartRecord(0, (dir / "h").c_str(), 1), 0);
        const AVI_MediaType type = is.haveAudio ? AVI_VideoAndAudio : AVI_Video;
        AVI_init(type);
        g_tSdv2Avi.m_iHaveAudio = is.haveAudio;
        g_tSdv2Avi.m_iDestType = is.destType;
        g_tSdv2Avi.m_iAudioFrames = is.haveAudio ? 7 : 0;
        g_tSdv2Avi.m_iTotalFrames = 5 + g_tSdv2Avi.m_iAudioFrames;
        Bytes rubbish(400, 0xEE);
        EXPECT_EQ(WriteTofile(rubbish.data(), 400), 0);
        EXPECT_EQ(AVI_WriteFileHeader({1920, 1080, 5, 0x12345678, 100000}, type), 0);
        EXPECT_EQ(ftell(g_tSdv2Avi.m_fsRec), AVI_MoviSkipLen(type));
        EXPECT_EQ(AVI_WriteMoviHeader(777, type), 0);
        fclose(g_tSdv2Avi.m_fsRec);
        g_tSdv2Avi.m_fsRec = nullptr;

        std::vector<Field> fields = video_fields(is);
        if (is.haveAudio)
            for (const Field& field : audio_fields(is)) fields.push_back(field);
        const uint32_t area = is.haveAudio ? 316 : 212;
        for (const Field& field :
             {Field{area, 4, fcc("LIST")}, {area + 4, 4, 777}, {area + 8, 4, fcc("movi")}})
            fields.push_back(field);
        const Bytes bytes = read_file(dir / "h");
        ASSERT_EQ(bytes.size(), 400u);
        uint32_t next = 0;
        for (const Field& field : fields) {
            ASSERT_EQ(field.offset, next) << "the table leaves no byte out";
            next += field.size;
            EXPECT_EQ(number_at(bytes, field.offset, field.size), field.value) << "at " << field.offset;
        }
        EXPECT_EQ(Bytes(bytes.begin() + long(next), bytes.end()), Bytes(400 - next, 0xEE))
            << "written beyond";
    }
}

TEST(AviHeaders, BuildersFillRecordsThatHoldRubbish)
{
    Job job;
    AVI_StrlHeader strl;
    memset(&strl, 0xEE, sizeof(strl));
    EXPECT_EQ(AVI_VideoSetStrlHeader(&strl), 0);
    EXPECT_EQ(strl.strh.dwSuggestedBufferSize, 1048576u);
    EXPECT_EQ(strl.strh.rcFrame.right | strl.strh.rcFrame.bottom, 0);
    AVI_VideoStrfHeader strf;
    memset(&strf, 0xEE, sizeof(strf));
    EXPECT_EQ(AVI_VideoSetStrfHeader(&strf), 0);
    EXPECT_EQ(strf.strf.biWidth | strf.strf.biHeight | int32_t(strf.strf.biSizeImage), 0);
    for (const auto& [type, size] : {std::pair{0, 192u}, {1, 172u}, {2, 296u}, {9, 296u}}) {
        AVI_HdrlHeader hdrl;
        memset(&hdrl, 0xEE, sizeof(hdrl));
        EXPECT_EQ(AVI_SetHdrlHeader(&hdrl, AVI_MediaType(type)), 0);
        EXPECT_EQ(hdrl.dwHeaderSize, size);
        EXPECT_EQ(hdrl.dwFileSize | hdrl.avih.dwTotalFrames | hdrl.avih.dwSuggestedBufferSize |
                      hdrl.avih.dwWidth,
                  0u);
    }
}

TEST(AviHeaders, ChunkIdsByMediaType)
{
    const std::tuple<int, int, const char*, const char*> rows[] = {
        {0, 212, "00dc", "????"}, {1, 192, "????", "00wb"}, {2, 316, "00dc", "01wb"}, {3, 0, "????", "????"}};
    for (const auto& [type, skip, video, audio] : rows) {
        AVI_FrameHeader heads[2] = {{fcc("????"), 9}, {fcc("????"), 9}};
        AVI_FrameHeaderInit(AVI_MediaType(type), nullptr, nullptr);
        AVI_FrameHeaderInit(AVI_MediaType(type), &heads[0], &heads[1]);
        EXPECT_EQ(heads[0].fcc, fcc(video));
        EXPECT_EQ(heads[0].dwFrameSize, heads[0].fcc == fcc("????") ? 9u : 0u);
        EXPECT_EQ(heads[1].fcc, fcc(audio));
        EXPECT_EQ(heads[1].dwFrameSize, heads[1].fcc == fcc("????") ? 9u : 0u);
        EXPECT_EQ(AVI_MoviSkipLen(AVI_MediaType(type)), skip);
    }
}

TEST(AviHeaders, InitResetsCountersAndWritersNeedAFile)
{
    Job job;
    TSdv2Avi& is = g_tSdv2Avi;
    is.m_iTotalFrames = is.m_iMoviBeginPos = is.m_iMaxFrameLen = is.m_iAudioFrames = is.m_bWriteHead = 5;
    is.m_iAviOffset = 99;
    EXPECT_EQ(AVI_init(AVI_VideoAndAudio), 0);
    EXPECT_EQ(
        is.m_iTotalFrames | is.m_iMoviBeginPos | is.m_iMaxFrameLen | is.m_iAudioFrames | is.m_bWriteHead, 0);
    EXPECT_EQ(is.m_iAviOffset, 4);
    EXPECT_EQ(is.m_AudioFrameHeader.fcc, fcc("01wb"));

    UCHAR byte = 0;
    EXPECT_EQ(WriteTofile(&byte, 1), -1);
    EXPECT_EQ(AVI_WriteFileHeader({}, AVI_Video), 1);
    EXPECT_EQ(AVI_WriteMoviHeader(10, AVI_Video), 1);
    EXPECT_EQ(AVI_WriteIndexHeader(1), 1);

    TempDir dir;
    ASSERT_EQ(StartRecord(0, (dir / "f").c_str(), 1), 0);
    for (const int size : {0, -1}) EXPECT_EQ(AVI_WriteMoviHeader(size, AVI_Video), 1);
    EXPECT_EQ(AVI_WriteIndexHeader(0), 1);
    fflush(is.m_fsRec);
    EXPECT_EQ(file_size(dir / "f"), 0u);
}
