#include <stddef.h>
#include <string.h>

#include <algorithm>

#include "Quorlin_internal.h"

static_assert(offsetof(SdvReport, u64FramesRecorded) == 8 && offsetof(SdvReport, u64FramesNotWritten) == 72 &&
              offsetof(SdvReport, u64FramesMissing) == 96 && sizeof(SdvReport) == 120);

// Callers may have been built when the record ended before u64FramesNotWritten.
static const uint32_t FIRST_SIZE = offsetof(SdvReport, u64FramesNotWritten);

static const uint64_t NOWHERE = UINT64_MAX;

// Beyond that many the numbers were damaged, or began anew.
static const uint32_t LONGEST_LOSS = 1000000;

// What is counted, and where we are. Any thread may ask while a conversion runs.
struct Account
{
    pthread_mutex_t lock;
    SdvReport counts;
    uint64_t gapEnd; // behind the last byte skipped
    uint64_t pushed; // bytes of the stream consumed so far
    uint32_t number; // of the last frame; 0: none yet
};
static Account s_tAccount = {PTHREAD_MUTEX_INITIALIZER, {}, NOWHERE, 0, 0};

void reset_report()
{
    PlainLock guard(s_tAccount.lock);
    s_tAccount.counts = {};
    s_tAccount.gapEnd = NOWHERE;
    s_tAccount.pushed = 0;
    s_tAccount.number = 0;
}

static uint64_t& count_of(SdvReport& counts, FrameFate fate)
{
    switch (fate) {
    case FrameFate::recorded:
        return counts.u64FramesRecorded;
    case FrameFate::numbered_0:
        return counts.u64DroppedNumber0;
    case FrameFate::no_key:
        return counts.u64DroppedNoKey;
    case FrameFate::wrong_key:
        return counts.u64DroppedWrongKey;
    case FrameFate::not_written:
        return counts.u64FramesNotWritten;
    case FrameFate::inconsistent:
        break;
    }
    return counts.u64DroppedInconsistent;
}

void count_frame(FrameFate fate)
{
    PlainLock guard(s_tAccount.lock);
    count_of(s_tAccount.counts, fate) += 1;
}

void note_number(uint32_t number)
{
    PlainLock guard(s_tAccount.lock);
    const uint32_t step = number - s_tAccount.number;
    const bool first = s_tAccount.number == 0;
    s_tAccount.number = number;
    if (first || step == 1) return;
    s_tAccount.counts.u64NumberGaps += 1;
    if (step > 1 && step <= LONGEST_LOSS) s_tAccount.counts.u64FramesMissing += step - 1;
}

void take_back_recorded(uint64_t frames)
{
    PlainLock guard(s_tAccount.lock);
    s_tAccount.counts.u64FramesRecorded -= frames;
    s_tAccount.counts.u64FramesNotWritten += frames;
}

// Bytes that lie behind one another are one gap, in however many steps they are passed over.
static void extend_gaps(Account& account, uint64_t from, uint64_t len)
{
    SdvReport& counts = account.counts;
    if (from != account.gapEnd) {
        if (counts.u64Gaps == 0) counts.u64FirstGap = from;
        counts.u64Gaps += 1;
    }
    account.gapEnd = from + len;
    counts.u64BytesSkipped += len;
}

void note_skipped(uint64_t from, uint64_t to)
{
    // The search begins at the start of the file; its header is not damage.
    if (from < sizeof(S_FileHeader)) from = sizeof(S_FileHeader);
    if (to <= from) return;
    PlainLock guard(s_tAccount.lock);
    extend_gaps(s_tAccount, from, to - from);
}

void note_skipped_in_stream(uint64_t from, uint64_t to)
{
    if (to <= from) return;
    PlainLock guard(s_tAccount.lock);
    extend_gaps(s_tAccount, s_tAccount.pushed + from, to - from);
}

void note_unreadable(uint64_t from, uint64_t end)
{
    PlainLock guard(s_tAccount.lock);
    s_tAccount.counts.u64BytesUnreadable = end - from;
    s_tAccount.counts.u64FirstUnreadable = end > from ? from : 0;
}

void note_cut_off(uint64_t at)
{
    PlainLock guard(s_tAccount.lock);
    s_tAccount.counts.u64CutOff = at;
}

void consume_stream(uint64_t len)
{
    PlainLock guard(s_tAccount.lock);
    s_tAccount.pushed += len;
}

int GetConversionReport(SdvReport* _pReport)
{
    if (!_pReport || _pReport->cbSize < FIRST_SIZE) return -1;

    const size_t start = offsetof(SdvReport, u64FramesRecorded);
    const size_t end =
        std::min<size_t>(_pReport->cbSize, sizeof(SdvReport)) / sizeof(uint64_t) * sizeof(uint64_t);
    PlainLock guard(s_tAccount.lock);
    memcpy(reinterpret_cast<char*>(_pReport) + start, reinterpret_cast<char*>(&s_tAccount.counts) + start,
           end - start);
    return 0;
}
