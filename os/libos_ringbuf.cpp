#include "libos_internal.h"

#include <limits.h>
#include <linux/futex.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#if defined(__arm__)
static_assert(sizeof(LMutex) == 24 && offsetof(RingBuf, type) == 24 && offsetof(RingBuf, bufsize) == 28 &&
              offsetof(RingBuf, readpos) == 32 && offsetof(RingBuf, writepos) == 36 &&
              offsetof(RingBuf, buf) == 40);
#endif

// Above this the running counts are brought down, long before they could overflow.
static const uint32 LARGE_COUNT = 536870911;

// Writers of all buffers that wait for room. The record has no place for it, and a reader that finds 0 here
// need not make the call that wakes them.
static std::atomic<int> s_blocked_writers;

// ringbuf_get_index() reads the counts without the lock.
static void set_count(uint32& count, uint32 value)
{
    std::atomic_ref<uint32>(count).store(value, std::memory_order_relaxed);
}

static void set_counts(RingBuf* ptbuf, uint32 readpos, uint32 writepos)
{
    set_count(ptbuf->readpos, readpos);
    set_count(ptbuf->writepos, writepos);
}

static void normalise(RingBuf* ptbuf)
{
    if (ptbuf->writepos <= LARGE_COUNT) return;

    const uint32 bufsize = static_cast<uint32>(ptbuf->bufsize);
    const uint32 less = std::min(ptbuf->readpos, ptbuf->writepos) / bufsize * bufsize;
    set_counts(ptbuf, ptbuf->readpos - less, ptbuf->writepos - less);
}

// Negative when more was removed than stored.
static int32 stored_bytes(const RingBuf* ptbuf)
{
    const int64_t stored = static_cast<int64_t>(ptbuf->writepos) - ptbuf->readpos;
    return static_cast<int32>(std::max<int64_t>(stored, INT32_MIN));
}

static uint32 free_room(const RingBuf* ptbuf)
{
    return static_cast<uint32>(ptbuf->bufsize) - (ptbuf->writepos - ptbuf->readpos);
}

// count is at most bufsize.
static void store(RingBuf* ptbuf, const uint8* src, uint32 count)
{
    const uint32 bufsize = static_cast<uint32>(ptbuf->bufsize);
    const uint32 at = ptbuf->writepos % bufsize;
    const uint32 first = std::min(count, bufsize - at);
    memcpy(ptbuf->buf + at, src, first);
    memcpy(ptbuf->buf, src + first, count - first);
    set_count(ptbuf->writepos, ptbuf->writepos + count);
}

static void store_over_oldest(RingBuf* ptbuf, const uint8* src, uint32 size)
{
    const uint32 bufsize = static_cast<uint32>(ptbuf->bufsize);
    if (size >= bufsize) {
        set_counts(ptbuf, 0, 0);
        store(ptbuf, src + (size - bufsize), bufsize);
        return;
    }

    // The oldest go first: in a buffer of more than a gigabyte the counts might otherwise pass 32 bits.
    set_count(ptbuf->readpos, ptbuf->readpos + (size - free_room(ptbuf)));
    normalise(ptbuf);
    store(ptbuf, src, size);
}

// The lock is released meanwhile. A wake-up that is missed because readpos came back to the value seen, as
// after a clear, costs the millisecond.
static void wait_for_room(RingBuf* ptbuf)
{
    const long millisecond[2] = {0, 1000000}; // what the call takes, also where time_t is wider than long
    const uint32 seen = ptbuf->readpos;

    s_blocked_writers.fetch_add(1, std::memory_order_relaxed);
    os_mutex_unlock(&ptbuf->mutex);
    const long result =
        syscall(SYS_futex, &ptbuf->readpos, FUTEX_WAIT_PRIVATE, seen, millisecond, nullptr, 0);
    if (result && errno != EAGAIN && errno != ETIMEDOUT && errno != EINTR) usleep(1000);
    s_blocked_writers.fetch_sub(1, std::memory_order_relaxed);
    os_mutex_lock(&ptbuf->mutex);
}

// Called without the lock, which ordered our change of readpos with the count of a writer that saw the old.
static void wake_writers(RingBuf* ptbuf)
{
    if (s_blocked_writers.load(std::memory_order_relaxed) > 0)
        syscall(SYS_futex, &ptbuf->readpos, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

static void store_as_room_comes(RingBuf* ptbuf, const uint8* src, uint32 size)
{
    for (;;) {
        // While we waited, more may have been removed than was stored: what looks like room is none.
        if (ptbuf->readpos > ptbuf->writepos) set_counts(ptbuf, 0, 0);

        const uint32 count = std::min(size, free_room(ptbuf));
        store(ptbuf, src, count);
        src += count;
        size -= count;
        if (!size) return;

        wait_for_room(ptbuf);
        normalise(ptbuf);
    }
}

RingBuf* ringbuf_create(int32 bufsize, int type)
{
    if (bufsize <= 0) return os_refuse(nullptr, "bufsize<=0");
    if (type != RINGBUF_WRITE_BLOCK && type != RINGBUF_WRITE_COVER)
        return os_refuse(nullptr, "unkonw ringbug write type");
    RingBuf* ptbuf = static_cast<RingBuf*>(malloc(sizeof(RingBuf) + static_cast<size_t>(bufsize)));
    if (!ptbuf) return os_refuse(nullptr, "NULL == ptBuf");
    if (!os_mutex_init(&ptbuf->mutex, 1)) {
        os_report("os_mutex_init failed");
        free(ptbuf);
        return nullptr;
    }
    ptbuf->type = type;
    ptbuf->bufsize = bufsize;
    set_counts(ptbuf, 0, 0);
    return ptbuf;
}

void ringbuf_destroy(RingBuf* ptbuf)
{
    if (!ptbuf) return;
    os_mutex_destroy(&ptbuf->mutex);
    free(ptbuf);
}

int32 ringbuf_datasize(RingBuf* ptbuf)
{
    if (!ptbuf) return 0;
    MutexGuard guard(&ptbuf->mutex);
    return stored_bytes(ptbuf);
}

int32 ringbuf_capacity(RingBuf* ptbuf)
{
    if (!ptbuf) return 0;
    MutexGuard guard(&ptbuf->mutex);
    const int64_t room = static_cast<int64_t>(ptbuf->bufsize) - stored_bytes(ptbuf);
    return static_cast<int32>(std::min<int64_t>(room, INT32_MAX));
}

int32 ringbuf_write(int32 size, const void* src, RingBuf* ptbuf)
{
    if (size <= 0) return size;
    if (!ptbuf) return os_refuse(-1, "ptbuf is null");
    if (!src) return os_refuse(-1, "src is null");
    if (ptbuf->bufsize <= 0) return -1;

    const uint8* bytes = static_cast<const uint8*>(src);
    const uint32 count = static_cast<uint32>(size);
    MutexGuard guard(&ptbuf->mutex);
    if (ptbuf->writepos <= ptbuf->readpos) set_counts(ptbuf, 0, 0);
    normalise(ptbuf);

    if (count <= free_room(ptbuf))
        store(ptbuf, bytes, count);
    else if (ptbuf->type == RINGBUF_WRITE_COVER)
        store_over_oldest(ptbuf, bytes, count);
    else
        store_as_room_comes(ptbuf, bytes, count);
    return ptbuf->bufsize;
}

static int32 take(RingBuf* ptbuf, void* dst, int32 size, bool consume)
{
    MutexGuard guard(&ptbuf->mutex);
    if (ptbuf->readpos >= ptbuf->writepos) {
        set_counts(ptbuf, 0, 0);
        return 0;
    }

    const uint32 bufsize = static_cast<uint32>(ptbuf->bufsize);
    const uint32 count = std::min(static_cast<uint32>(size), ptbuf->writepos - ptbuf->readpos);
    const uint32 at = ptbuf->readpos % bufsize;
    const uint32 first = std::min(count, bufsize - at);
    memcpy(dst, ptbuf->buf + at, first);
    memcpy(static_cast<uint8*>(dst) + first, ptbuf->buf, count - first);
    if (consume) set_count(ptbuf->readpos, ptbuf->readpos + count);
    return static_cast<int32>(count);
}

int32 ringbuf_read(int32 size, void* dst, RingBuf* ptbuf)
{
    if (size <= 0) return size;
    if (!ptbuf) return os_refuse(-1, "ptbuf is null");
    if (!dst) return os_refuse(-1, "dst is null");
    if (ptbuf->bufsize <= 0) return -1;

    const int32 count = take(ptbuf, dst, size, true);
    wake_writers(ptbuf);
    return count;
}

int32 ringbuf_copy(int32 size, void* dst, RingBuf* ptbuf)
{
    if (size <= 0) return size;
    if (!ptbuf) return -1;
    if (!dst) return os_refuse(-1, "dst is null");
    if (ptbuf->bufsize <= 0) return -1;
    return take(ptbuf, dst, size, false);
}

int32 ringbuf_remove(int32 size, RingBuf* ptbuf)
{
    if (!ptbuf) return os_refuse(-1, "ptbuf is null");
    if (size <= 0) return 0;

    {
        // A count that wrapped round would make long gone bytes look stored.
        MutexGuard guard(&ptbuf->mutex);
        const uint32 limit = UINT32_MAX - ptbuf->readpos;
        set_count(ptbuf->readpos, ptbuf->readpos + std::min(static_cast<uint32>(size), limit));
    }
    wake_writers(ptbuf);
    return 0;
}

int32 ringbuf_clear(RingBuf* ptbuf)
{
    if (!ptbuf) return os_refuse(-1, "ptbuf is null");
    {
        MutexGuard guard(&ptbuf->mutex);
        set_counts(ptbuf, 0, 0);
    }
    wake_writers(ptbuf);
    return 0;
}

void* ringbuf_getdata(RingBuf* ptbuf)
{
    if (!ptbuf) return os_refuse(nullptr, "ptbuf is null");
    if (ptbuf->bufsize <= 0) return nullptr;
    MutexGuard guard(&ptbuf->mutex);
    return ptbuf->buf + ptbuf->readpos % static_cast<uint32>(ptbuf->bufsize);
}

void ringbuf_get_index(RingBuf* ptbuf, int32* iread, int32* iwrite)
{
    if (!ptbuf) return;
    std::atomic_ref<uint32> readpos(ptbuf->readpos);
    std::atomic_ref<uint32> writepos(ptbuf->writepos);
    if (iread) *iread = static_cast<int32>(readpos.load(std::memory_order_relaxed));
    if (iwrite) *iwrite = static_cast<int32>(writepos.load(std::memory_order_relaxed));
}
