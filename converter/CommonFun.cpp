#include "CommonFun.h"

#include <stddef.h>
#include <string.h>

static_assert(offsetof(S_FileHeader, cCovWord) == 24 && offsetof(S_FileHeader, TriggerHigh) == 64 &&
              offsetof(S_FileHeader, AChannels) == 74 && offsetof(S_FileHeader, SamplesPerSec) == 76 &&
              offsetof(S_FileHeader, FrameCount) == 84);
static_assert(offsetof(S_FrameHeader, u8FrameType) == 8 && offsetof(S_FrameHeader, u32FrameNO) == 12 &&
              offsetof(S_FrameHeader, u32VStreamLen) == 20 && offsetof(S_FrameHeader, u16AFrames) == 24 &&
              offsetof(S_FrameHeader, u8ACoder) == 28 && offsetof(S_FrameHeader, reserved) == 30);

static const int MODE_MPEG4 = 11;
static const uint32_t MPEG4_FLAG_MASK = 0x00FCFFFF;
static const uint32_t P_iFrameFlag[6] = {0x02000000, 0x03000000, 0x00800000,
                                         0x02000000, 0x04000000, 0x02000000};

static uint32_t audio_size(const S_FrameHeader& header)
{
    const uint32_t frames = (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
    return frames * header.u16AFrameSize;
}

// The sizes must add up in the 32-bit arithmetic of the recorder that wrote them.
static BOOL sizes_add_up(const BYTE* _pFrmHeader, uint32_t _uLimit)
{
    if (!_pFrmHeader) return 0;

    S_FrameHeader header;
    memcpy(&header, _pFrmHeader, sizeof(header));
    if (header.u32FrameSize > _uLimit || header.u32VStreamLen > _uLimit) return 0;

    return header.u32FrameSize ==
           header.u32VStreamLen + audio_size(header) + static_cast<uint32_t>(sizeof(header));
}

BOOL IsValidFileHeader(S_FileHeader* _pFileHeader)
{
    if (!_pFileHeader || _pFileHeader->FrameRate > 30) return 0;

    switch (_pFileHeader->Mode) {
    case MODE_MPEG4:
    case 21:
    case 31:
    case 32:
    case 41:
        return 1;
    default:
        return 0;
    }
}

BOOL IsValidFrameHeader(LPBYTE _pFrmHeader, int _iVMode)
{
    if (_iVMode == MODE_MPEG4) return IsValidMPEG4FrmHeader(_pFrmHeader);
    return sizes_add_up(_pFrmHeader, 0x200000);
}

BOOL IsValidMPEG4FrmHeader(unsigned char*)
{
    return 1;
}

BOOL IsValidFrmHeader(LPBYTE _pFrmHeader)
{
    return sizes_add_up(_pFrmHeader, 0x100000);
}

int GetFrameFlagByMode(int _iMode)
{
    switch (_iMode) {
    case MODE_MPEG4:
        return static_cast<int>(P_iFrameFlag[2]);
    case 21:
        return static_cast<int>(P_iFrameFlag[0]);
    case 22:
        return static_cast<int>(P_iFrameFlag[3]);
    case 31:
        return static_cast<int>(P_iFrameFlag[1]);
    case 32:
        return static_cast<int>(P_iFrameFlag[4]);
    case 41:
        return static_cast<int>(P_iFrameFlag[5]);
    default:
        return -1;
    }
}

int GetFrameSize(LPBYTE _pFrmHeader, int _iVMode)
{
    if (!_pFrmHeader) return -1;
    if (_iVMode == MODE_MPEG4) return GetMPEG4FrmSize(_pFrmHeader);

    int size;
    memcpy(&size, _pFrmHeader + offsetof(S_FrameHeader, u32FrameSize), sizeof(size));
    return size;
}

int GetMPEG4FrmSize(unsigned char* _pFrmHeader)
{
    if (!_pFrmHeader) return -1;
    return _pFrmHeader[5] * 256 + _pFrmHeader[6];
}

int GetValidFrameSize(LPBYTE _pFrmHeader, int _iVMode)
{
    if (!_pFrmHeader) return 0;

    uint32_t flag;
    memcpy(&flag, _pFrmHeader, sizeof(flag));
    if (_iVMode == MODE_MPEG4) flag &= MPEG4_FLAG_MASK;
    if (flag != static_cast<uint32_t>(GetFrameFlagByMode(_iVMode))) return 0;
    if (!IsValidFrameHeader(_pFrmHeader, _iVMode)) return 0;

    // In mode 11 nothing else holds the size above that of a header.
    const int size = GetFrameSize(_pFrmHeader, _iVMode);
    return size < static_cast<int>(sizeof(S_FrameHeader)) ? 0 : size;
}

int GetFrameAudioSize(LPBYTE _pFrmHeader)
{
    if (!_pFrmHeader) return 0;

    S_FrameHeader header;
    memcpy(&header, _pFrmHeader, sizeof(header));
    return static_cast<int>(audio_size(header));
}

void CompleteFileHeader(S_FileHeader* _pFileHeader)
{
    if (!_pFileHeader) return;

    S_FileHeader& header = *_pFileHeader;
    if (header.AChannels == 0 || header.AChannels == 255) header.AChannels = 1;
    if (header.BitsPerSample == 0 || header.BitsPerSample == 255) header.BitsPerSample = 16;
    if (header.SamplesPerSec == 0 || header.SamplesPerSec == 0xFFFFFFFF) header.SamplesPerSec = 8000;
}
