#include <cstring>

#include "support.h"

// What the caller set, or an earlier job left behind, is gone.
TEST(Job, InitializeResetsAllButKeyAndHeldBlock)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    unsigned char key[] = "0123456789abcdef";
    SetDecryptKey(key, 16);
    Initialize(8000);
    QuorlinRelease(); // which keeps the block
    AVI_IndexBlock* const block = g_tSdv2Avi.m_IndexBlock;
    memset(&g_tSdv2Avi, 0x77, offsetof(TSdv2Avi, m_bDecryptKeyReady));
    g_tSdv2Avi.m_IndexBlock = block;
    EXPECT_EQ(Initialize(16000), 0);
    for (const int32_t zero :
         {job.m_iIsSwitching, job.m_iRecFileType, job.m_iPosition, job.m_iTotalFrames, job.m_iAudioFrames,
          job.m_iMoviBeginPos, job.m_iMaxFrameLen, job.m_iAviInitTimes, job.m_bWriteHead, job.m_iFrameCount,
          job.m_iHaveAudio, job.m_iStreamLen, job.m_iDestType, int32_t(job.m_AudioFrameHeader.fcc),
          int32_t(job.m_VideoFrameHeader.fcc)})
        EXPECT_EQ(zero, 0);
    EXPECT_TRUE(all_zero(job.m_szInputPath, 260) && all_zero(job.m_szOutputPath, 260) &&
                all_zero(&job.m_Header, sizeof(job.m_Header)) && !job.m_tChangeid && !job.m_fsRec);
    EXPECT_EQ(std::tuple(job.m_iAviOffset, job.m_iAudioSampleRate, job.m_iAudioChannel, job.m_iMaxBufSize),
              std::tuple(4, 16000, 1, 6291456));
    EXPECT_EQ(job.m_IndexBlock, block) << "a block still held is used again";
    ASSERT_TRUE(block && job.m_lstIndex && m_lstIndexPoll && job.m_pStreamBuf);
    EXPECT_EQ(pthread_mutex_trylock(&g_tSdv2Avi.m_LockAviFile), 0);
    pthread_mutex_unlock(&g_tSdv2Avi.m_LockAviFile);
    EXPECT_TRUE(job.m_bDecryptKeyReady && memcmp(job.m_ucDecryptKey, key, 16) == 0);
    QuorlinRelease();
    SetDecryptKey(nullptr, 0);
}

TEST(Job, ReleaseGivesBackWhatItOwnsAndKeepsTheOutcome)
{
    Recording open({.width = 352});
    g_tSdv2Avi.m_iPosition = -4;
    g_tSdv2Avi.m_iDestType = 1;
    strcpy(g_tSdv2Avi.m_szInputPath, "in");
    AVI_IndexBlock* queued = MallocIndexBlock();
    adt_dlist_add(g_tSdv2Avi.m_lstIndex, nullptr, &queued);
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(QuorlinRelease(), 0);
        EXPECT_FALSE(g_tSdv2Avi.m_pStreamBuf || g_tSdv2Avi.m_fsRec || g_tSdv2Avi.m_lstIndex ||
                     m_lstIndexPoll);
        EXPECT_EQ(m_iSize, g_tSdv2Avi.m_IndexBlock ? 1 : 0);
        EXPECT_EQ(std::tuple(g_tSdv2Avi.m_iPosition, g_tSdv2Avi.m_iDestType, g_tSdv2Avi.m_Header.Width),
                  std::tuple(-4, 1, 352));
        EXPECT_STREQ(g_tSdv2Avi.m_szInputPath, "in");
    }
    EXPECT_EQ(file_size(open.path), 0u) << "closed without headers";
}
