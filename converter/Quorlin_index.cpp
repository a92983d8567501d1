#include <stdio.h>

#include <algorithm>

#include "Quorlin_internal.h"

static const DWORD FLAG_KEYFRAME = 0x10;

// Put a fresh block in the place of the full one. It is taken first, so that a failure leaves all as it was.
static bool change_block(TSdv2Avi& job)
{
    AVI_IndexBlock* fresh = MallocIndexBlock();
    if (!fresh) return false;

    bool queued;
    {
        ListLock guard(job.m_lstIndex);
        queued = queue_block(job.m_lstIndex, job.m_IndexBlock);
    }
    if (!queued) {
        FreeIndexBlock(fresh);
        return false;
    }
    job.m_IndexBlock = fresh;
    return true;
}

static bool is_full(const AVI_IndexBlock& block)
{
    return block.m_iIndexCount >= AVI_INDEX_BLOCK_ENTRIES;
}

int AVI_AddIndex(int _iDataLen, int _iFrameType)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (!job.m_IndexBlock) return -1;
    if (_iFrameType != KIND_KEY_FRAME && _iFrameType != KIND_VIDEO && _iFrameType != KIND_AUDIO) return -1;

    const DWORD len = static_cast<DWORD>(_iDataLen);
    const DWORD offset = static_cast<DWORD>(job.m_iAviOffset);
    const AVI_IndexEntity entry = {_iFrameType == KIND_AUDIO ? fourcc("01wb") : fourcc("00dc"),
                                   _iFrameType == KIND_VIDEO ? 0 : FLAG_KEYFRAME, offset, len};
    job.m_iAviOffset = static_cast<int32_t>(offset + 8 + len + (len & 1));
    if (is_full(*job.m_IndexBlock) && !change_block(job)) return -1;

    job.m_IndexBlock->m_IndexBlock[job.m_IndexBlock->m_iIndexCount++] = entry;
    return 0;
}

int AVI_WriteIndexHeader(int _iTotalFrames)
{
    if (!g_tSdv2Avi.m_fsRec || _iTotalFrames <= 0) return 1;

    const CancelGuard whole;
    AVI_IndexHeader header = {fourcc("idx1"),
                              static_cast<DWORD>(_iTotalFrames) * DWORD{sizeof(AVI_IndexEntity)}};
    seek_file(0, SEEK_END);
    WriteTofile(reinterpret_cast<UCHAR*>(&header), sizeof(header));
    return 0;
}

// Behind a piece of the index that was lost, entries would lie where a repair takes them for chunks.
static void write_entries(AVI_IndexBlock& block, int count, bool failedBefore)
{
    if (output_failed() && !failedBefore) return;
    WriteTofile(reinterpret_cast<UCHAR*>(block.m_IndexBlock),
                count * static_cast<int>(sizeof(AVI_IndexEntity)));
}

int AVI_CreateAVIIndex(int _iTotalFrames, AVI_MediaType)
{
    const CancelGuard whole;
    TSdv2Avi& job = g_tSdv2Avi;
    const bool failedBefore = output_failed();
    AVI_WriteIndexHeader(_iTotalFrames);
    {
        ListLock guard(job.m_lstIndex);
        while (AVI_IndexBlock* block = take_first_block(job.m_lstIndex)) {
            write_entries(*block, AVI_INDEX_BLOCK_ENTRIES, failedBefore);
            FreeIndexBlock(block);
        }
    }
    if (!job.m_IndexBlock) return 0;

    write_entries(*job.m_IndexBlock,
                  std::clamp<int>(job.m_IndexBlock->m_iIndexCount, 0, AVI_INDEX_BLOCK_ENTRIES), failedBefore);
    FreeIndexBlock(job.m_IndexBlock);
    job.m_IndexBlock = nullptr;
    return 0;
}

void return_queued_blocks()
{
    ListLock guard(g_tSdv2Avi.m_lstIndex);
    while (AVI_IndexBlock* block = take_first_block(g_tSdv2Avi.m_lstIndex)) FreeIndexBlock(block);
}

int32_t held_entries()
{
    const TSdv2Avi& job = g_tSdv2Avi;
    ListLock guard(job.m_lstIndex);
    const int32_t queued =
        job.m_lstIndex ? static_cast<int32_t>(adt_dlist_size(job.m_lstIndex)) * AVI_INDEX_BLOCK_ENTRIES : 0;
    return queued + (job.m_IndexBlock ? job.m_IndexBlock->m_iIndexCount : 0);
}

void begin_index()
{
    TSdv2Avi& job = g_tSdv2Avi;
    return_queued_blocks();
    if (!job.m_IndexBlock) job.m_IndexBlock = MallocIndexBlock();
    if (job.m_IndexBlock) job.m_IndexBlock->m_iIndexCount = 0;
}
