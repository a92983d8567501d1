#include <string.h>

#include <algorithm>

#include "Quorlin_internal.h"

static const int MODE_H264 = 21;
static const int MAX_KEY = 16;          // longer keys are kept, but no AES key can be made of them
static const int ENCIPHERED_BYTES = 64; // of each frame's payload
static const unsigned char START_CODE[4] = {0, 0, 0, 1};

int SetDecryptKey(unsigned char* _pucDecryptKey, int _iKeyLen)
{
    TSdv2Avi& job = g_tSdv2Avi;
    const bool accepted = _pucDecryptKey && _iKeyLen >= 0;
    const int len = accepted ? std::min<int>(_iKeyLen, sizeof(job.m_ucDecryptKey)) : 0;

    if (len) memmove(job.m_ucDecryptKey, _pucDecryptKey, static_cast<size_t>(len));
    memset(job.m_ucDecryptKey + len, 0, sizeof(job.m_ucDecryptKey) - static_cast<size_t>(len));
    job.m_iDecryptKeyLen = len;
    job.m_bDecryptKeyReady = accepted;
    return accepted ? 0 : -1;
}

static BOOL IsEncryptFrameHeader(const S_FrameHeader* _frameHeader)
{
    return (_frameHeader->reserved & 3) == 2;
}

static bool has_usable_key(const TSdv2Avi& job)
{
    return job.m_bDecryptKeyReady && job.m_iDecryptKeyLen >= 1 && job.m_iDecryptKeyLen <= MAX_KEY;
}

int CA_DecryptFrame(unsigned char* _pucBuff, int _iFrameSize, unsigned long)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (job.m_Header.Mode != MODE_H264) return -3;
    if (!_pucBuff || _iFrameSize < static_cast<int>(FRAME_HEADER_SIZE)) return -1;

    S_FrameHeader header;
    memcpy(&header, _pucBuff, sizeof(header));
    if (!IsEncryptFrameHeader(&header)) return -3;
    if (!has_usable_key(job)) return -2;

    unsigned char* payload = _pucBuff + FRAME_HEADER_SIZE;
    const int reach = std::min(_iFrameSize - static_cast<int>(FRAME_HEADER_SIZE), ENCIPHERED_BYTES);
    video_AES_CTR(payload, reach, header.u32FrameNO, job.m_ucDecryptKey, job.m_iDecryptKeyLen);

    const bool confirmed = reach >= 4 && memcmp(payload, START_CODE, sizeof(START_CODE)) == 0;
    return confirmed ? 0 : -4;
}
