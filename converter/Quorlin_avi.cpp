#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "Quorlin_internal.h"

static_assert(sizeof(AVI_FrameHeader) == 8 && sizeof(AVI_MainHeader) == 64 &&
              sizeof(AVI_StreamHeader) == 64 && sizeof(AVI_BitmapInfoHeader) == 40 &&
              sizeof(AVI_WaveFormatEx) == 20 && sizeof(AVI_HdrlHeader) == 88 &&
              sizeof(AVI_StrlHeader) == 76 && sizeof(AVI_VideoStrfHeader) == 48 &&
              sizeof(AVI_AudioStrfHeader) == 28 && sizeof(AVI_MoviHeader) == 12 &&
              sizeof(AVI_IndexHeader) == 8 && sizeof(AVI_Header) == 20 && sizeof(AVI_MediaType) == 4);
static_assert(offsetof(AVI_MainHeader, dwReserved) == 48 && offsetof(AVI_StreamHeader, wPriority) == 20 &&
              offsetof(AVI_StreamHeader, dwInitialFrames) == 24 &&
              offsetof(AVI_StreamHeader, rcFrame) == 56 && offsetof(AVI_BitmapInfoHeader, biPlanes) == 12 &&
              offsetof(AVI_BitmapInfoHeader, biSizeImage) == 20 && offsetof(AVI_WaveFormatEx, cbSize) == 16 &&
              offsetof(AVI_WaveFormatEx, cData) == 18 && offsetof(AVI_HdrlHeader, avih) == 24 &&
              offsetof(AVI_StrlHeader, strh) == 12 && offsetof(AVI_VideoStrfHeader, strf) == 8 &&
              offsetof(AVI_AudioStrfHeader, strf) == 8);

static const DWORD HDRL_SIZE_VIDEO = 192;
static const DWORD HDRL_SIZE_AUDIO = 172;
static const DWORD HDRL_SIZE_BOTH = 296;
static const DWORD FLAG_HASINDEX = 0x10;
static const DWORD FLAG_ISINTERLEAVED = 0x100;
static const DWORD FLAG_TRUSTCKTYPE = 0x800;
static const DWORD BUFFER_SLACK = 20480; // suggested buffer beyond the largest video chunk
static const DWORD G711_CHUNK_SAMPLES = 320;
static const WORD FORMAT_ALAW = 6;
static const WORD FORMAT_MULAW = 7;
static const WORD FORMAT_AAC = 0x00FF;

// What the headers say of the streams, apart from picture size and lengths.
struct Streams
{
    int32_t audioCode;
    bool aac;
    int32_t audioRate;
    WORD audioChannels;
    DWORD frameRate;
    DWORD pictures;
    DWORD audioChunks;
};

static Streams streams_of(const TSdv2Avi& job)
{
    return {job.m_iHaveAudio,
            job.m_iDestType == 1,
            job.m_iAudioSampleRate,
            job.m_Header.AChannels,
            job.m_Header.FrameRate,
            static_cast<DWORD>(job.m_iTotalFrames - job.m_iAudioFrames),
            static_cast<DWORD>(job.m_iAudioFrames)};
}

// No builder fails today; its caller passes on what it says, with a text.
static int told(int result, const char* text)
{
    if (result != 0) puts(text);
    return result;
}

void AVI_FrameHeaderInit(AVI_MediaType _types, AVI_FrameHeader* _pVideoHeader, AVI_FrameHeader* _pAudioHeader)
{
    const bool video = _types == AVI_Video || _types == AVI_VideoAndAudio;
    if (video && _pVideoHeader) *_pVideoHeader = {fourcc("00dc"), 0};
    if (_types == AVI_VideoAndAudio && _pAudioHeader) *_pAudioHeader = {fourcc("01wb"), 0};
    if (_types == AVI_Audio && _pAudioHeader) *_pAudioHeader = {fourcc("00wb"), 0};
}

int AVI_MoviSkipLen(AVI_MediaType _mediaType)
{
    switch (_mediaType) {
    case AVI_Video:
        return 212;
    case AVI_Audio:
        return 192;
    case AVI_VideoAndAudio:
        return 316;
    default:
        return 0;
    }
}

int AVI_init(AVI_MediaType _mediaType)
{
    TSdv2Avi& job = g_tSdv2Avi;
    AVI_FrameHeaderInit(_mediaType, &job.m_VideoFrameHeader, &job.m_AudioFrameHeader);
    job.m_iTotalFrames = 0;
    job.m_iMoviBeginPos = 0;
    job.m_iMaxFrameLen = 0;
    job.m_iAudioFrames = 0;
    job.m_bWriteHead = 0;
    job.m_iAviOffset = 4;
    return 0;
}

// ---- RIFF and hdrl

static int set_avih(AVI_MainHeader& avih, const Streams& streams)
{
    const bool audio = streams.audioCode != 0;
    avih = {};
    avih.fcc = fourcc("avih");
    avih.cb = sizeof(AVI_MainHeader) - sizeof(AVI_FrameHeader);
    avih.dwMicroSecPerFrame = 40000;
    avih.dwMaxBytesPerSec = 5 * static_cast<DWORD>(streams.audioRate);
    avih.dwFlags = FLAG_HASINDEX | FLAG_TRUSTCKTYPE | (audio ? FLAG_ISINTERLEAVED : 0);
    avih.dwStreams = audio ? 2 : 1;
    return 0;
}

static DWORD hdrl_size(AVI_MediaType type)
{
    if (type == AVI_Video) return HDRL_SIZE_VIDEO;
    return type == AVI_Audio ? HDRL_SIZE_AUDIO : HDRL_SIZE_BOTH;
}

static int set_hdrl(AVI_HdrlHeader& hdrl, AVI_MediaType type, const Streams& streams)
{
    hdrl.fcc = fourcc("RIFF");
    hdrl.dwFileSize = 0;
    hdrl.AviFcc = fourcc("AVI ");
    hdrl.ListFcc = fourcc("LIST");
    hdrl.dwHeaderSize = hdrl_size(type);
    hdrl.HdrlFcc = fourcc("hdrl");
    return set_avih(hdrl.avih, streams);
}

// ---- stream headers

static void begin_strh(AVI_StreamHeader& strh, FOURCC type)
{
    strh = {};
    strh.fcc = fourcc("strh");
    strh.cb = sizeof(AVI_StreamHeader) - sizeof(AVI_FrameHeader);
    strh.fccType = type;
    strh.dwQuality = 0xFFFFFFFF;
}

static int set_video_strh(AVI_StreamHeader& strh, const Streams& streams)
{
    begin_strh(strh, fourcc("vids"));
    strh.fccHandler = fourcc("H264");
    strh.dwScale = 1;
    strh.dwRate = streams.frameRate;
    strh.dwLength = streams.pictures;
    strh.dwSuggestedBufferSize = 1048576;
    return 0;
}

static int set_audio_strh(AVI_StreamHeader& strh, const Streams& streams)
{
    const bool aac = streams.aac;
    begin_strh(strh, fourcc("auds"));
    strh.fccHandler = aac ? 0 : 1;
    strh.dwFlags = aac ? 1 : 0;
    strh.dwScale = aac ? 1024 : 1;
    strh.dwRate = static_cast<DWORD>(streams.audioRate);
    strh.dwLength = aac ? streams.audioChunks : streams.audioChunks * G711_CHUNK_SAMPLES;
    strh.dwSuggestedBufferSize = aac ? 8192 : 16000;
    strh.dwSampleSize = aac ? 0 : 1;
    return 0;
}

static void begin_strl(AVI_StrlHeader& strl, DWORD strf_chunk)
{
    strl.ListFcc = fourcc("LIST");
    strl.dwHeaderSize = sizeof(FOURCC) + sizeof(AVI_StreamHeader) + strf_chunk;
    strl.StrlFcc = fourcc("strl");
}

static int set_video_strl(AVI_StrlHeader& strl, const Streams& streams)
{
    begin_strl(strl, sizeof(AVI_VideoStrfHeader));
    return set_video_strh(strl.strh, streams);
}

static int set_audio_strl(AVI_StrlHeader& strl, const Streams& streams)
{
    begin_strl(strl, sizeof(AVI_AudioStrfHeader));
    return set_audio_strh(strl.strh, streams);
}

// ---- stream formats

static int set_video_strf(AVI_VideoStrfHeader& header)
{
    header.StrfFcc = fourcc("strf");
    header.dwStrfSize = sizeof(AVI_BitmapInfoHeader);
    return told(AVI_VideoSetStrf(&header.strf), "AVI_VideoSetStrfHeader: AVI_SetStrf failed");
}

static BYTE frequency_index(int32_t rate)
{
    switch (rate) {
    case 48000:
        return 3;
    case 32000:
        return 5;
    case 16000:
        return 8;
    default:
        return 11;
    }
}

static void set_aac_format(AVI_WaveFormatEx& strf, int32_t rate)
{
    const BYTE index = frequency_index(rate);
    strf.wFormatTag = FORMAT_AAC;
    strf.nChannels = 2;
    strf.nSamplesPerSec = static_cast<DWORD>(rate);
    strf.nAvgBytesPerSec = 1956;
    strf.nBlockAlign = 4096;
    strf.cbSize = 2;
    // AudioSpecificConfig: object type 2 (AAC LC), frequency index, two channels.
    strf.cData[0] = static_cast<BYTE>(2 << 3 | index >> 1);
    strf.cData[1] = static_cast<BYTE>((index & 1) << 7 | 2 << 3);
}

static void set_g711_format(AVI_WaveFormatEx& strf, const Streams& streams)
{
    strf.wFormatTag = streams.audioCode == 1 ? FORMAT_ALAW : FORMAT_MULAW;
    strf.nChannels = streams.audioChannels;
    strf.nSamplesPerSec = static_cast<DWORD>(streams.audioRate);
    strf.nAvgBytesPerSec = static_cast<DWORD>(streams.audioRate);
    strf.nBlockAlign = 1;
    strf.wBitsPerSample = 8;
}

static int set_audio_format(AVI_WaveFormatEx& strf, const Streams& streams)
{
    strf = {};
    if (streams.aac)
        set_aac_format(strf, streams.audioRate);
    else
        set_g711_format(strf, streams);
    return 0;
}

static int set_audio_strf(AVI_AudioStrfHeader& header, const Streams& streams)
{
    header.StrfFcc = fourcc("strf");
    header.dwStrfSize = sizeof(AVI_WaveFormatEx);
    return told(set_audio_format(header.strf, streams), "AVI_SetStrfHeader: AVI_SetStrf failed");
}

// ---- the job's builders

int AVI_SetAvih(AVI_MainHeader* _Avih)
{
    return set_avih(*_Avih, streams_of(g_tSdv2Avi));
}

int AVI_SetHdrlHeader(AVI_HdrlHeader* _hdrl, AVI_MediaType _mediaType)
{
    return set_hdrl(*_hdrl, _mediaType, streams_of(g_tSdv2Avi));
}

int AVI_VideoSetStrh(AVI_StreamHeader* _strh)
{
    return set_video_strh(*_strh, streams_of(g_tSdv2Avi));
}

int AVI_AudioSetStrh(AVI_StreamHeader* _strh)
{
    return set_audio_strh(*_strh, streams_of(g_tSdv2Avi));
}

int AVI_VideoSetStrlHeader(AVI_StrlHeader* _strl)
{
    return set_video_strl(*_strl, streams_of(g_tSdv2Avi));
}

int AVI_AudioSetStrlHeader(AVI_StrlHeader* _strl)
{
    return set_audio_strl(*_strl, streams_of(g_tSdv2Avi));
}

int AVI_VideoSetStrf(AVI_BitmapInfoHeader* _strf)
{
    *_strf = {};
    _strf->biSize = sizeof(AVI_BitmapInfoHeader);
    _strf->biPlanes = 1;
    _strf->biCompression = fourcc("H264");
    return 0;
}

int AVI_AudioSetStrf(AVI_WaveFormatEx* _strf)
{
    return set_audio_format(*_strf, streams_of(g_tSdv2Avi));
}

int AVI_VideoSetStrfHeader(AVI_VideoStrfHeader* _strfHeader)
{
    return set_video_strf(*_strfHeader);
}

int AVI_AudioSetStrfHeader(AVI_AudioStrfHeader* _strfHeader)
{
    return set_audio_strf(*_strfHeader, streams_of(g_tSdv2Avi));
}

// ---- the header area

// As it lies in a file with both streams; without audio it ends before audioStrl.
struct HeaderArea
{
    AVI_HdrlHeader hdrl;
    AVI_StrlHeader videoStrl;
    AVI_VideoStrfHeader videoStrf;
    AVI_StrlHeader audioStrl;
    AVI_AudioStrfHeader audioStrf;
};
static_assert(sizeof(HeaderArea) == 316 && offsetof(HeaderArea, audioStrl) == 212);

static int fill_area(HeaderArea& area, const AVI_Header& summary, AVI_MediaType type, const Streams& streams)
{
    area = {};
    int failed = told(set_hdrl(area.hdrl, type, streams), "_AVI_SetHdrlHeader Failed");
    failed |= told(set_video_strl(area.videoStrl, streams), "_AVI_VideoSetStrlHeader Failed");
    failed |= told(set_video_strf(area.videoStrf), "_AVI_VideoSetStrfHeader Failed");
    failed |= told(set_audio_strl(area.audioStrl, streams), "_AVI_SetStrlHeader Failed");
    failed |= told(set_audio_strf(area.audioStrf, streams), "_AVI_SetStrfHeader Failed");

    const DWORD width = static_cast<DWORD>(summary.iWidth), height = static_cast<DWORD>(summary.iHeight);
    const DWORD buffer = static_cast<DWORD>(summary.iFrameMaxSize) + BUFFER_SLACK;
    area.hdrl.dwFileSize = static_cast<DWORD>(summary.iFileLen);
    area.hdrl.avih.dwTotalFrames = static_cast<DWORD>(summary.iTotalFrames);
    area.hdrl.avih.dwSuggestedBufferSize = buffer;
    area.hdrl.avih.dwWidth = width;
    area.hdrl.avih.dwHeight = height;
    area.videoStrl.strh.rcFrame.right = static_cast<int16_t>(summary.iWidth);
    area.videoStrl.strh.rcFrame.bottom = static_cast<int16_t>(summary.iHeight);
    area.videoStrl.strh.dwSuggestedBufferSize = buffer;
    area.videoStrf.strf.biWidth = summary.iWidth;
    area.videoStrf.strf.biHeight = summary.iHeight;
    area.videoStrf.strf.biSizeImage = width * height * 3;
    return failed;
}

static void write_bytes(void* from, const void* end)
{
    WriteTofile(static_cast<UCHAR*>(from),
                static_cast<int>(static_cast<const char*>(end) - static_cast<char*>(from)));
}

int AVI_WriteFileHeader(AVI_Header _aviHeader, AVI_MediaType _mediaType)
{
    const CancelGuard whole;
    TSdv2Avi& job = g_tSdv2Avi;
    HeaderArea area;
    if (!job.m_fsRec || fill_area(area, _aviHeader, _mediaType, streams_of(job)) != 0) return 1;

    const bool video = _mediaType == AVI_Video || _mediaType == AVI_VideoAndAudio;
    const bool audio = _mediaType == AVI_Audio || _mediaType == AVI_VideoAndAudio;
    seek_file(0, SEEK_SET);
    write_bytes(&area.hdrl, &area.videoStrl);
    if (video) write_bytes(&area.videoStrl, &area.audioStrl);
    if (audio) write_bytes(&area.audioStrl, &area + 1);
    return 0;
}

static AVI_MoviHeader movi_header(uint32_t size)
{
    return {fourcc("LIST"), size, fourcc("movi")};
}

int write_movi_header(uint32_t size, AVI_MediaType type)
{
    if (!g_tSdv2Avi.m_fsRec) return 1;

    const CancelGuard whole;
    AVI_MoviHeader movi = movi_header(size);
    seek_file(AVI_MoviSkipLen(type), SEEK_SET);
    write_bytes(&movi, &movi + 1);
    return 0;
}

int AVI_WriteMoviHeader(int _iMoviSize, AVI_MediaType _types)
{
    return _iMoviSize > 0 ? write_movi_header(static_cast<uint32_t>(_iMoviSize), _types) : 1;
}

int BuildAviHeader(const SdvAviHeader* _pHeader, unsigned char* _pBytes, int _iSize)
{
    if (!_pHeader || !_pBytes || _pHeader->cbSize < sizeof(SdvAviHeader)) return -1;

    const SdvAviHeader& values = *_pHeader;
    const AVI_MediaType type = values.u32AudioCode != 0 ? AVI_VideoAndAudio : AVI_Video;
    const int area_size = AVI_MoviSkipLen(type);
    const int size = area_size + static_cast<int>(sizeof(AVI_MoviHeader));
    if (_iSize < size) return -1;

    const Streams streams = {static_cast<int32_t>(values.u32AudioCode),
                             values.u32AudioCode == CODE_AAC,
                             static_cast<int32_t>(values.u32AudioRate),
                             static_cast<WORD>(values.u32AudioChannels),
                             values.u32FrameRate,
                             values.u32VideoChunks,
                             values.u32AudioChunks};
    const AVI_Header summary = {static_cast<int32_t>(values.u32Width), static_cast<int32_t>(values.u32Height),
                                static_cast<int32_t>(values.u32VideoChunks),
                                static_cast<int32_t>(values.u32RiffSize),
                                static_cast<int32_t>(values.u32LargestVideoChunk)};
    HeaderArea area;
    if (fill_area(area, summary, type, streams) != 0) return -1;
    const AVI_MoviHeader movi = movi_header(values.u32MoviSize);
    memcpy(_pBytes, &area, static_cast<size_t>(area_size));
    memcpy(_pBytes + area_size, &movi, sizeof(movi));
    return size;
}
