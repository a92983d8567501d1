#include "Quorlin_running.h"

#include <atomic>

#include "Quorlin_internal.h"

static pthread_mutex_t s_tLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t s_tChanged = PTHREAD_COND_INITIALIZER;
static bool s_bRunning;
static int s_iUsers;
static uint32_t s_uCalls;
static int s_iOutcome = SdvProgress_None; // of the last call
static std::atomic<int> s_iPercent;

// Apart from the lock: a signal handler may cancel.
static const int CLOSED = 0; // none runs, or its outcome stands
static const int OPEN = 1;
static const int CANCELLED = 2;
static std::atomic<int> s_iRequest = CLOSED;

static void begin_locked()
{
    while (s_bRunning || s_iUsers > 0) pthread_cond_wait(&s_tChanged, &s_tLock);
    s_bRunning = true;
    s_uCalls += 1;
    s_iPercent.store(0, std::memory_order_relaxed);
    s_iRequest.store(OPEN);
}

void begin_conversion()
{
    PlainLock guard(s_tLock);
    begin_locked();
}

bool try_begin_conversion()
{
    PlainLock guard(s_tLock);
    if (s_bRunning) return false;
    begin_locked();
    return true;
}

void end_conversion(int outcome)
{
    PlainLock guard(s_tLock);
    s_iRequest.store(CLOSED);
    s_iOutcome = outcome;
    s_bRunning = false;
    pthread_cond_broadcast(&s_tChanged);
}

void note_progress(int percent)
{
    s_iPercent.store(percent, std::memory_order_relaxed);
}

void note_refused(int reason)
{
    PlainLock guard(s_tLock);
    if (s_bRunning) return;
    s_uCalls += 1;
    s_iOutcome = reason;
}

int GetConversionProgress(uint32_t* _puCalls)
{
    PlainLock guard(s_tLock);
    if (_puCalls) *_puCalls = s_uCalls;
    return s_bRunning ? s_iPercent.load(std::memory_order_relaxed) : s_iOutcome;
}

void begin_use()
{
    PlainLock guard(s_tLock);
    while (s_bRunning) pthread_cond_wait(&s_tChanged, &s_tLock);
    s_iUsers += 1;
}

bool try_begin_use()
{
    PlainLock guard(s_tLock);
    if (s_bRunning) return false;
    s_iUsers += 1;
    return true;
}

void end_use()
{
    PlainLock guard(s_tLock);
    s_iUsers -= 1;
    pthread_cond_broadcast(&s_tChanged);
}

bool is_cancelled()
{
    return s_iRequest.load(std::memory_order_relaxed) == CANCELLED;
}

bool close_to_cancelling()
{
    return s_iRequest.exchange(CLOSED) == CANCELLED;
}

int CancelConversion(void)
{
    int request = OPEN;
    return s_iRequest.compare_exchange_strong(request, CANCELLED) || request == CANCELLED;
}
