#include <stddef.h>

#include "Quorlin_internal.h"

TSdv2Avi g_tSdv2Avi;
WaitedThread g_tWaited = {PTHREAD_MUTEX_INITIALIZER, {}, false};

#if defined(__arm__)
// The device's programs were built against exactly this record.
static_assert(sizeof(pthread_mutex_t) == 24 && sizeof(TSdv2Avi) == 808);
static_assert(offsetof(TSdv2Avi, m_szOutputPath) == 4 && offsetof(TSdv2Avi, m_szInputPath) == 264 &&
              offsetof(TSdv2Avi, m_iRecFileType) == 524 && offsetof(TSdv2Avi, m_Header) == 528 &&
              offsetof(TSdv2Avi, m_iPosition) == 616 && offsetof(TSdv2Avi, m_IndexBlock) == 620 &&
              offsetof(TSdv2Avi, m_tChangeid) == 624 && offsetof(TSdv2Avi, m_fsRec) == 628);
static_assert(offsetof(TSdv2Avi, m_AudioFrameHeader) == 632 &&
              offsetof(TSdv2Avi, m_VideoFrameHeader) == 640 && offsetof(TSdv2Avi, m_iTotalFrames) == 648 &&
              offsetof(TSdv2Avi, m_iAudioFrames) == 652 && offsetof(TSdv2Avi, m_iMoviBeginPos) == 656 &&
              offsetof(TSdv2Avi, m_iMaxFrameLen) == 660 && offsetof(TSdv2Avi, m_iAviInitTimes) == 664 &&
              offsetof(TSdv2Avi, m_bWriteHead) == 668 && offsetof(TSdv2Avi, m_iFrameCount) == 672 &&
              offsetof(TSdv2Avi, m_iHaveAudio) == 676 && offsetof(TSdv2Avi, m_iAviOffset) == 680 &&
              offsetof(TSdv2Avi, m_lstIndex) == 684);
static_assert(offsetof(TSdv2Avi, m_LockAviFile) == 688 && offsetof(TSdv2Avi, m_pStreamBuf) == 712 &&
              offsetof(TSdv2Avi, m_iMaxBufSize) == 716 && offsetof(TSdv2Avi, m_iStreamLen) == 720 &&
              offsetof(TSdv2Avi, m_iDestType) == 724 && offsetof(TSdv2Avi, m_bDecryptKeyReady) == 728 &&
              offsetof(TSdv2Avi, m_iDecryptKeyLen) == 732 && offsetof(TSdv2Avi, m_ucDecryptKey) == 736 &&
              offsetof(TSdv2Avi, m_iAudioSampleRate) == 800 && offsetof(TSdv2Avi, m_iAudioChannel) == 804);
static_assert(sizeof(ADTSFRAMEHEADER) == 72 && offsetof(ADTSFRAMEHEADER, aac_frame_lenght) == 48 &&
              offsetof(ADTSFRAMEHEADER, Duration) == 68);
static_assert(sizeof(STR_AES) == 516 && offsetof(STR_AES, e_key) == 4 && offsetof(STR_AES, d_key) == 260);
static_assert(offsetof(AVI_IndexBlock, m_IndexBlock) == 4);
#endif
