#include <stddef.h>
#include <stdio.h>

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

template <typename Record>
static void write_record(Record& record)
{
    WriteTofile(reinterpret_cast<UCHAR*>(&record), sizeof(record));
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
// ------------------------------------------------------------------------------------------

int AVI_SetAvih(AVI_MainHeader* _Avih)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    const bool audio = job.m_iHaveAudio != 0;

    *_Avih = {};
    _Avih->fcc = fourcc("avih");
    _Avih->cb = sizeof(AVI_MainHeader) - sizeof(AVI_FrameHeader);
    _Avih->dwMicroSecPerFrame = 40000;
    _Avih->dwMaxBytesPerSec = 5 * static_cast<DWORD>(job.m_iAudioSampleRate);
    _Avih->dwFlags = FLAG_HASINDEX | FLAG_TRUSTCKTYPE | (audio ? FLAG_ISINTERLEAVED : 0);
    _Avih->dwStreams = audio ? 2 : 1;
    return 0;
}

static DWORD hdrl_size(AVI_MediaType _mediaType)
{
    if (_mediaType == AVI_Video) return HDRL_SIZE_VIDEO;
    return _mediaType == AVI_Audio ? HDRL_SIZE_AUDIO : HDRL_SIZE_BOTH;
}

int AVI_SetHdrlHeader(AVI_HdrlHeader* _hdrl, AVI_MediaType _mediaType)
{
    _hdrl->fcc = fourcc("RIFF");
    _hdrl->dwFileSize = 0;
    _hdrl->AviFcc = fourcc("AVI ");
    _hdrl->ListFcc = fourcc("LIST");
    _hdrl->dwHeaderSize = hdrl_size(_mediaType);
    _hdrl->HdrlFcc = fourcc("hdrl");
    return AVI_SetAvih(&_hdrl->avih);
}

// ---- stream headers
// -----------------------------------------------------------------------------------------

static void begin_strh(AVI_StreamHeader* _strh, FOURCC type)
{
    *_strh = {};
    _strh->fcc = fourcc("strh");
    _strh->cb = sizeof(AVI_StreamHeader) - sizeof(AVI_FrameHeader);
    _strh->fccType = type;
    _strh->dwQuality = 0xFFFFFFFF;
}

int AVI_VideoSetStrh(AVI_StreamHeader* _strh)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    begin_strh(_strh, fourcc("vids"));
    _strh->fccHandler = fourcc("H264");
    _strh->dwScale = 1;
    _strh->dwRate = job.m_Header.FrameRate;
    _strh->dwLength = static_cast<DWORD>(job.m_iTotalFrames - job.m_iAudioFrames);
    _strh->dwSuggestedBufferSize = 1048576;
    return 0;
}

int AVI_AudioSetStrh(AVI_StreamHeader* _strh)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    const bool aac = job.m_iDestType == 1;
    const DWORD chunks = static_cast<DWORD>(job.m_iAudioFrames);

    begin_strh(_strh, fourcc("auds"));
    _strh->fccHandler = aac ? 0 : 1;
    _strh->dwFlags = aac ? 1 : 0;
    _strh->dwScale = aac ? 1024 : 1;
    _strh->dwRate = static_cast<DWORD>(job.m_iAudioSampleRate);
    _strh->dwLength = aac ? chunks : chunks * G711_CHUNK_SAMPLES;
    _strh->dwSuggestedBufferSize = aac ? 8192 : 16000;
    _strh->dwSampleSize = aac ? 0 : 1;
    return 0;
}

static void begin_strl(AVI_StrlHeader* _strl, DWORD strf_chunk)
{
    _strl->ListFcc = fourcc("LIST");
    _strl->dwHeaderSize = sizeof(FOURCC) + sizeof(AVI_StreamHeader) + strf_chunk;
    _strl->StrlFcc = fourcc("strl");
}

int AVI_VideoSetStrlHeader(AVI_StrlHeader* _strl)
{
    begin_strl(_strl, sizeof(AVI_VideoStrfHeader));
    return AVI_VideoSetStrh(&_strl->strh);
}

int AVI_AudioSetStrlHeader(AVI_StrlHeader* _strl)
{
    begin_strl(_strl, sizeof(AVI_AudioStrfHeader));
    return AVI_AudioSetStrh(&_strl->strh);
}

// ---- stream formats
// -----------------------------------------------------------------------------------------

int AVI_VideoSetStrf(AVI_BitmapInfoHeader* _strf)
{
    *_strf = {};
    _strf->biSize = sizeof(AVI_BitmapInfoHeader);
    _strf->biPlanes = 1;
    _strf->biCompression = fourcc("H264");
    return 0;
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

static void set_aac_format(AVI_WaveFormatEx* _strf, int32_t rate)
{
    const BYTE index = frequency_index(rate);
    _strf->wFormatTag = FORMAT_AAC;
    _strf->nChannels = 2;
    _strf->nSamplesPerSec = static_cast<DWORD>(rate);
    _strf->nAvgBytesPerSec = 1956;
    _strf->nBlockAlign = 4096;
    _strf->cbSize = 2;
    // AudioSpecificConfig: object type 2 (AAC LC), frequency index, two channels.
    _strf->cData[0] = static_cast<BYTE>(2 << 3 | index >> 1);
    _strf->cData[1] = static_cast<BYTE>((index & 1) << 7 | 2 << 3);
}

static void set_g711_format(AVI_WaveFormatEx* _strf, const TSdv2Avi& job)
{
    _strf->wFormatTag = job.m_iHaveAudio == 1 ? FORMAT_ALAW : FORMAT_MULAW;
    _strf->nChannels = job.m_Header.AChannels;
    _strf->nSamplesPerSec = static_cast<DWORD>(job.m_iAudioSampleRate);
    _strf->nAvgBytesPerSec = static_cast<DWORD>(job.m_iAudioSampleRate);
    _strf->nBlockAlign = 1;
    _strf->wBitsPerSample = 8;
}

int AVI_AudioSetStrf(AVI_WaveFormatEx* _strf)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    *_strf = {};
    if (job.m_iDestType == 1)
        set_aac_format(_strf, job.m_iAudioSampleRate);
    else
        set_g711_format(_strf, job);
    return 0;
}

int AVI_VideoSetStrfHeader(AVI_VideoStrfHeader* _strfHeader)
{
    _strfHeader->StrfFcc = fourcc("strf");
    _strfHeader->dwStrfSize = sizeof(AVI_BitmapInfoHeader);
    if (AVI_VideoSetStrf(&_strfHeader->strf) != 0) {
        puts("AVI_VideoSetStrfHeader: AVI_SetStrf failed");
        return 1;
    }
    return 0;
}

int AVI_AudioSetStrfHeader(AVI_AudioStrfHeader* _strfHeader)
{
    _strfHeader->StrfFcc = fourcc("strf");
    _strfHeader->dwStrfSize = sizeof(AVI_WaveFormatEx);
    if (AVI_AudioSetStrf(&_strfHeader->strf) != 0) {
        puts("AVI_SetStrfHeader: AVI_SetStrf failed");
        return 1;
    }
    return 0;
}

// ---- writing
// ------------------------------------------------------------------------------------------------

static int write_hdrl(const AVI_Header& summary, AVI_MediaType type)
{
    AVI_HdrlHeader hdrl = {};
    if (AVI_SetHdrlHeader(&hdrl, type) != 0) {
        puts("_AVI_SetHdrlHeader Failed");
        return 1;
    }
    hdrl.dwFileSize = static_cast<DWORD>(summary.iFileLen);
    hdrl.avih.dwTotalFrames = static_cast<DWORD>(summary.iTotalFrames);
    hdrl.avih.dwSuggestedBufferSize = static_cast<DWORD>(summary.iFrameMaxSize) + BUFFER_SLACK;
    hdrl.avih.dwWidth = static_cast<DWORD>(summary.iWidth);
    hdrl.avih.dwHeight = static_cast<DWORD>(summary.iHeight);
    seek_file(0, SEEK_SET);
    write_record(hdrl);
    return 0;
}

static int write_video_strl(const AVI_Header& summary)
{
    AVI_StrlHeader strl = {};
    AVI_VideoStrfHeader strf = {};
    if (AVI_VideoSetStrlHeader(&strl) != 0) {
        puts("_AVI_VideoSetStrlHeader Failed");
        return 1;
    }
    if (AVI_VideoSetStrfHeader(&strf) != 0) {
        puts("_AVI_VideoSetStrfHeader Failed");
        return 1;
    }
    strl.strh.rcFrame.right = static_cast<int16_t>(summary.iWidth);
    strl.strh.rcFrame.bottom = static_cast<int16_t>(summary.iHeight);
    strl.strh.dwSuggestedBufferSize = static_cast<DWORD>(summary.iFrameMaxSize) + BUFFER_SLACK;
    strf.strf.biWidth = summary.iWidth;
    strf.strf.biHeight = summary.iHeight;
    strf.strf.biSizeImage = static_cast<DWORD>(summary.iWidth) * static_cast<DWORD>(summary.iHeight) * 3;
    write_record(strl);
    write_record(strf);
    return 0;
}

static int write_audio_strl()
{
    AVI_StrlHeader strl = {};
    AVI_AudioStrfHeader strf = {};
    if (AVI_AudioSetStrlHeader(&strl) != 0) {
        puts("_AVI_SetStrlHeader Failed");
        return 1;
    }
    if (AVI_AudioSetStrfHeader(&strf) != 0) {
        puts("_AVI_SetStrfHeader Failed");
        return 1;
    }
    write_record(strl);
    write_record(strf);
    return 0;
}

int AVI_WriteFileHeader(AVI_Header _aviHeader, AVI_MediaType _mediaType)
{
    const CancelGuard whole;
    if (!g_tSdv2Avi.m_fsRec || write_hdrl(_aviHeader, _mediaType) != 0) return 1;

    const bool video = _mediaType == AVI_Video || _mediaType == AVI_VideoAndAudio;
    const bool audio = _mediaType == AVI_Audio || _mediaType == AVI_VideoAndAudio;
    if (video && write_video_strl(_aviHeader) != 0) return 1;
    if (audio && write_audio_strl() != 0) return 1;
    return 0;
}

int write_movi_header(uint32_t size, AVI_MediaType type)
{
    if (!g_tSdv2Avi.m_fsRec) return 1;

    const CancelGuard whole;
    AVI_MoviHeader movi = {fourcc("LIST"), size, fourcc("movi")};
    seek_file(AVI_MoviSkipLen(type), SEEK_SET);
    write_record(movi);
    return 0;
}

int AVI_WriteMoviHeader(int _iMoviSize, AVI_MediaType _types)
{
    return _iMoviSize > 0 ? write_movi_header(static_cast<uint32_t>(_iMoviSize), _types) : 1;
}
