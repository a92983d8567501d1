#include <stdio.h>
#include <string.h>

#include "Quorlin_internal.h"
#include "Quorlin_running.h"

static void note_gap(const TSdv2Avi& job, int32_t from, int32_t to)
{
    if (job.m_fsRec) note_skipped_in_stream(static_cast<uint64_t>(from), static_cast<uint64_t>(to));
}

static void keep_rest(TSdv2Avi& job, int32_t from)
{
    if (job.m_fsRec) consume_stream(static_cast<uint64_t>(from));
    job.m_iStreamLen -= from;
    if (from > 0) memmove(job.m_pStreamBuf, job.m_pStreamBuf + from, static_cast<size_t>(job.m_iStreamLen));
}

int SearchAndRecordFrame(void)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (!job.m_pStreamBuf) return 0;

    const CancelGuard whole;
    const int mode = job.m_Header.Mode;
    int result = 0;
    int32_t p = 0;
    int32_t gap = 0; // bytes [gap, p) begin no frame
    while (job.m_iStreamLen - p >= static_cast<int32_t>(FRAME_HEADER_SIZE)) {
        const int32_t size = GetValidFrameSize(job.m_pStreamBuf + p, mode);
        if (size == 0) {
            p += 1;
            continue;
        }
        note_gap(job, gap, p);
        gap = p;
        if (size > job.m_iStreamLen - p) break;
        if (job.m_fsRec) result = RecordAvi(job.m_pStreamBuf + p, size);
        p += size;
        gap = p;
    }
    note_gap(job, gap, p);
    keep_rest(job, p);
    return result;
}

int RecordAviEx(unsigned char* _ucData, int _iLength)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (!job.m_pStreamBuf || _iLength < 0 || (!_ucData && _iLength > 0)) return -1;

    PlainLock guard(job.m_LockAviFile);
    if (_iLength > job.m_iMaxBufSize - job.m_iStreamLen) {
        fputs("-------buffer is not large enough-------", stderr);
        return -1;
    }
    if (_iLength > 0) memcpy(job.m_pStreamBuf + job.m_iStreamLen, _ucData, static_cast<size_t>(_iLength));
    job.m_iStreamLen += _iLength;
    return SearchAndRecordFrame();
}

static int stop_locked(int index)
{
    PlainLock guard(g_tSdv2Avi.m_LockAviFile);
    return StopRecord(index);
}

int StopRecordEx(int _iDDrawIndex)
{
    const CancelGuard whole;
    if (!try_begin_use()) return 1;
    const int result = stop_locked(_iDDrawIndex);
    end_use();
    return result;
}
