#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Quorlin_internal.h"
#include "Quorlin_running.h"

static const int32_t STREAM_BUFFER_SIZE = 6291456;

// The locks live from Initialize() to QuorlinRelease(); a second release must not destroy them again.
static bool s_bLocksLive;

static void allocate_stream_buffer(TSdv2Avi& job)
{
    job.m_iMaxBufSize = STREAM_BUFFER_SIZE;
    job.m_pStreamBuf = static_cast<unsigned char*>(malloc(STREAM_BUFFER_SIZE));
    if (!job.m_pStreamBuf) fputs("******************malloc failed********************", stderr);
    job.m_iStreamLen = 0;
}

static void forget_thread(TSdv2Avi& job)
{
    PlainLock guard(g_tWaited.lock);
    job.m_tChangeid = 0;
    g_tWaited.done = false;
}

static void clear_recording(TSdv2Avi& job)
{
    publish(job.m_iIsSwitching, 0);
    job.m_fsRec = nullptr;
    job.m_AudioFrameHeader = {};
    job.m_VideoFrameHeader = {};
    job.m_Header = {};
    memset(job.m_szOutputPath, 0, sizeof(job.m_szOutputPath));
    memset(job.m_szInputPath, 0, sizeof(job.m_szInputPath));
    job.m_iTotalFrames = 0;
    job.m_iAudioFrames = 0;
    job.m_iMoviBeginPos = 0;
    job.m_iMaxFrameLen = 0;
    job.m_iAviInitTimes = 0;
    job.m_bWriteHead = 0;
    job.m_iFrameCount = 0;
    job.m_iRecFileType = 0;
    job.m_iHaveAudio = 0;
    job.m_iDestType = 0;
    job.m_iAviOffset = 4;
    forget_thread(job);
    publish(job.m_iPosition, 0);
}

void prepare_job(int _iAudioSampleRate)
{
    TSdv2Avi& job = g_tSdv2Avi;
    reset_report();
    allocate_stream_buffer(job);
    job.m_iAudioSampleRate = _iAudioSampleRate;
    job.m_iAudioChannel = 1;
    clear_recording(job);

    pthread_mutex_init(&job.m_LockAviFile, nullptr);
    m_lstIndexPoll = adt_dlist_create(sizeof(void*));
    job.m_lstIndex = adt_dlist_create(sizeof(void*));
    SingleAviIndexInit();
    s_bLocksLive = true;
    if (!job.m_IndexBlock) job.m_IndexBlock = MallocIndexBlock();
}

// Somebody who presses cancel calls these first, while a conversion has the job.
int Initialize(int _iAudioSampleRate)
{
    const CancelGuard whole;
    begin_use();
    prepare_job(_iAudioSampleRate);
    end_use();
    return 0;
}

static void destroy_list(DList*& list)
{
    if (list) adt_dlist_destroy(list);
    list = nullptr;
}

static void destroy_locks(TSdv2Avi& job)
{
    if (!s_bLocksLive) return;
    pthread_mutex_destroy(&job.m_LockAviFile);
    SingleAviIndexDestroy();
    s_bLocksLive = false;
}

void release_job()
{
    TSdv2Avi& job = g_tSdv2Avi;
    return_queued_blocks();
    Destroy();
    if (job.m_fsRec) fclose(job.m_fsRec);
    job.m_fsRec = nullptr;
    free(job.m_pStreamBuf);
    job.m_pStreamBuf = nullptr;
    job.m_iStreamLen = 0;
    destroy_list(job.m_lstIndex);
    destroy_list(m_lstIndexPoll);
    destroy_locks(job);
}

int QuorlinRelease(void)
{
    const CancelGuard whole;
    begin_use();
    release_job();
    end_use();
    return 0;
}
