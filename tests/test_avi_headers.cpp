#include "support.h"

struct Layout
{
    const char* what;
    int haveAudio, destType, rate;
    uint32_t channels, config; // config of AAC
};

// 1920 x 1080 at 13, five video chunks of at most 100000 bytes, and seven audio chunks if any.
static Bytes header_area(const Layout& is)
{
    const bool audio = is.haveAudio != 0, aac = is.destType == 1;
    const Word none = half(0);
    const Bytes main =
        words("RIFF", 0x12345678, "AVI ", "LIST", audio ? 296 : 192, "hdrl", "avih", 56, 40000, 5 * is.rate,
              0, audio ? 0x910 : 0x810, 5, 0, audio ? 2 : 1, 120480, 1920, 1080, 0, 0, 0, 0);
    const Bytes video = words("LIST", 116, "strl", "strh", 56, "vids", "H264", 0, none, none, 0, 1, 13, 0, 5,
                              120480, 0xFFFFFFFF, 0, none, none, half(1920), half(1080), "strf", 40, 40, 1920,
                              1080, half(1), none, "H264", 6220800, 0, 0, 0, 0);
    if (!audio) return main + video;

    const Bytes format =
        aac ? words(half(0xFF), half(2), is.rate, 1956, half(4096), none, half(2), half(is.config))
            : words(half(is.haveAudio == 1 ? 6 : 7), half(is.channels), is.rate, is.rate, half(1), half(8),
                    none, none);
    return main + video +
           words("LIST", 96, "strl", "strh", 56, "auds", aac ? 0 : 1, aac ? 1 : 0, none, none, 0,
                 aac ? 1024 : 1, is.rate, 0, aac ? 7 : 2240, aac ? 8192 : 16000, 0xFFFFFFFF, aac ? 0 : 1, 0,
                 0, "strf", 20) +
           format;
}

TEST(AviHeaders, EveryByteOfEveryLayout)
{
    const Layout layouts[] = {
        {"video only", 0, 0, 8000, 1, 0},           {"mu-law", 2, 0, 8000, 1, 0},
        {"A-law, two channels", 1, 0, 16000, 2, 0}, {"AAC at 48000", 22, 1, 48000, 2, 0x9011},
        {"AAC at 32000", 22, 1, 32000, 1, 0x9012},  {"AAC at 16000", 22, 1, 16000, 2, 0x1014},
        {"AAC at 8000", 22, 1, 8000, 2, 0x9015},    {"AAC at 44100", 22, 1, 44100, 2, 0x9015},
    };
    for (const Layout& is : layouts) {
        SCOPED_TRACE(is.what);
        Recording open({.frameRate = 13, .channels = uint8_t(is.channels), .sampleRate = uint32_t(is.rate)});
        const AVI_MediaType type = is.haveAudio ? AVI_VideoAndAudio : AVI_Video;
        AVI_init(type);
        g_tSdv2Avi.m_iHaveAudio = is.haveAudio;
        g_tSdv2Avi.m_iDestType = is.destType;
        g_tSdv2Avi.m_iAudioFrames = is.haveAudio ? 7 : 0;
        g_tSdv2Avi.m_iTotalFrames = 5 + g_tSdv2Avi.m_iAudioFrames;
        Bytes rubbish(400, 0xEE);
        EXPECT_EQ(WriteTofile(rubbish.data(), 400), 0);
        EXPECT_EQ(AVI_WriteFileHeader({1920, 1080, 5, 0x12345678, 100000}, type), 0);
        EXPECT_EQ(AVI_WriteMoviHeader(777, type), 0);
        fflush(g_tSdv2Avi.m_fsRec);

        const Bytes want = header_area(is) + words("LIST", 777, "movi");
        EXPECT_TRUE(same_bytes(read_file(open.path), want + Bytes(400 - want.size(), 0xEE)));
    }
}

// What a builder makes of a record depends on nothing that the record held.
template <typename Record>
static void expect_filled(int (*build)(Record*))
{
    Record records[2];
    memset(&records[0], 0, sizeof(Record));
    memset(&records[1], 0xEE, sizeof(Record));
    for (Record& record : records) build(&record);
    EXPECT_EQ(memcmp(&records[0], &records[1], sizeof(Record)), 0);
}

TEST(AviHeaders, BuildersFillRecordsThatHoldRubbish)
{
    Job job;
    expect_filled(AVI_VideoSetStrlHeader);
    expect_filled(AVI_VideoSetStrfHeader);
    expect_filled(AVI_AudioSetStrlHeader);
    expect_filled(AVI_AudioSetStrfHeader);
    expect_filled<AVI_HdrlHeader>([](AVI_HdrlHeader* hdrl) { return AVI_SetHdrlHeader(hdrl, AVI_Video); });
}

TEST(AviHeaders, AudioAlone)
{
    AVI_HdrlHeader hdrl;
    AVI_FrameHeader video = {}, audio = {};
    AVI_SetHdrlHeader(&hdrl, AVI_Audio);
    for (const auto type : {AVI_VideoAndAudio, AVI_Audio}) AVI_FrameHeaderInit(type, nullptr, nullptr);
    AVI_FrameHeaderInit(AVI_Audio, &video, &audio);
    EXPECT_EQ(std::tuple(hdrl.dwHeaderSize, video.fcc, audio.fcc), std::tuple(172, 0, Word("00wb").value));
    EXPECT_EQ(std::pair(AVI_MoviSkipLen(AVI_Audio), AVI_MoviSkipLen(AVI_MediaType(9))), std::pair(192, 0));
}

TEST(AviHeaders, WritersNeedAFileAndASize)
{
    UCHAR byte = 0;
    EXPECT_EQ(WriteTofile(&byte, 1), -1);
    EXPECT_TRUE(AVI_WriteFileHeader({}, AVI_Video) && AVI_WriteMoviHeader(10, AVI_Video));
    Recording open;
    EXPECT_TRUE(AVI_WriteMoviHeader(0, AVI_Video) && AVI_WriteIndexHeader(0));
    fflush(g_tSdv2Avi.m_fsRec);
    EXPECT_EQ(file_size(open.path), 0u);
}
