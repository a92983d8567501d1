#include "adts.h"
#include "support.h"

TEST(AviHeaders, OfEachAudioFormatAreSound)
{
    const std::tuple<uint8_t, uint32_t, int> rows[] = {
        // code and rate of the recording, format in the file
        {2, 8000, 7},      {22, 48000, 0xFF}, {22, 32000, 0xFF},
        {22, 16000, 0xFF}, {22, 8000, 0xFF},  {22, 44100, 0xFF},
    };
    for (const auto& [code, rate, format] : rows) {
        SCOPED_TRACE(rate);
        Recording open({.frameRate = 13, .width = 1920, .height = 1080, .sampleRate = rate});
        const Bytes slot = code == 22 ? adts::frame(noise(99, 1), 16000) : sdv::g711_slot(noise(320, 1));
        for (uint32_t i = 1; i <= 5; ++i)
            push_frame(sdv::frame(with_audio(picture(i, i * 1000, i != 1), code, {slot}, {slot})));
        EXPECT_EQ(StopRecord(0), 0);
        const avi::Report file = expect_sound(open.path);
        EXPECT_EQ(std::tuple(file.width, file.height, file.rate, file.videoLength, file.sampleRate),
                  std::tuple(1920u, 1080u, 13u, 5u, rate));
        EXPECT_EQ(file.audio.formatTag, format);
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
    EXPECT_EQ(AVI_WriteMoviHeader(777, AVI_Video), 0);
    fflush(g_tSdv2Avi.m_fsRec);
    EXPECT_EQ(read_file(open.path), Bytes(212, 0) + words("LIST", 777, "movi"));
}
