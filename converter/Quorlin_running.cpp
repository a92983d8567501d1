#include "Quorlin_running.h"

#include <atomic>

#include "Quorlin_internal.h"

static pthread_mutex_t s_tLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t s_tEnded = PTHREAD_COND_INITIALIZER;
static bool s_bRunning;

// Apart from the lock: a signal handler may cancel.
static const int CLOSED = 0; // none runs, or its outcome stands
static const int OPEN = 1;
static const int CANCELLED = 2;
static std::atomic<int> s_iRequest = CLOSED;

static void await_end_locked()
{
    while (s_bRunning) pthread_cond_wait(&s_tEnded, &s_tLock);
}

static void begin_locked()
{
    s_bRunning = true;
    s_iRequest.store(OPEN);
}

void begin_conversion()
{
    PlainLock guard(s_tLock);
    await_end_locked();
    begin_locked();
}

bool try_begin_conversion()
{
    PlainLock guard(s_tLock);
    if (s_bRunning) return false;
    begin_locked();
    return true;
}

void end_conversion()
{
    PlainLock guard(s_tLock);
    s_iRequest.store(CLOSED);
    s_bRunning = false;
    pthread_cond_broadcast(&s_tEnded);
}

bool is_conversion_running()
{
    PlainLock guard(s_tLock);
    return s_bRunning;
}

void await_conversion_end()
{
    PlainLock guard(s_tLock);
    await_end_locked();
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
