#include <pthread.h>
#include <stdlib.h>
#include <sys/select.h>

#include "libos_internal.h"

static const size_t DEFAULT_STACK = 1048576;

int os_mutex_init(LMutex* mutex, int recursive)
{
    if (!mutex) return os_refuse(0, "mutex is null");

    pthread_mutexattr_t kind;
    if (pthread_mutexattr_init(&kind) != 0) return 0;
    if (recursive) pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_RECURSIVE);
    const int error = pthread_mutex_init(&mutex->mutex, &kind);
    pthread_mutexattr_destroy(&kind);
    return error == 0;
}

LMutex* os_mutex_create(int recursive)
{
    LMutex* mutex = static_cast<LMutex*>(malloc(sizeof(LMutex)));
    if (!mutex) return os_refuse(nullptr, "mutex is null");
    if (!os_mutex_init(mutex, recursive)) {
        os_report("!os_mutex_init(mutex, recursive)");
        free(mutex);
        return nullptr;
    }
    return mutex;
}

int os_mutex_destroy(LMutex* mutex)
{
    if (!mutex) return os_refuse(0, "mutex is null");
    return pthread_mutex_destroy(&mutex->mutex) == 0;
}

int os_mutex_free(LMutex* mutex)
{
    os_mutex_destroy(mutex);
    free(mutex);
    return 1;
}

int os_mutex_lock(LMutex* mutex)
{
    if (!mutex) return os_refuse(0, "mutex is null");
    return pthread_mutex_lock(&mutex->mutex) == 0;
}

int os_mutex_unlock(LMutex* mutex)
{
    if (!mutex) return os_refuse(0, "mutex is null");
    return pthread_mutex_unlock(&mutex->mutex) == 0;
}

static int create_with_stack(LThread* thr, size_t stack_size, ThreadStartFunc start, void* arg)
{
    pthread_attr_t attributes;
    const int error = pthread_attr_init(&attributes);
    if (error) return error;

    // A size that the platform refuses leaves its default in force.
    pthread_attr_setstacksize(&attributes, stack_size);
    const int result = pthread_create(&thr->thr, &attributes, start, arg);
    pthread_attr_destroy(&attributes);
    return result;
}

int os_thread_create(LThread* thr, uint32 stack_size, ThreadStartFunc start, void* arg)
{
    if (!thr) return os_refuse(0, "thr is null");

    const int error = create_with_stack(thr, stack_size ? stack_size : DEFAULT_STACK, start, arg);
    if (error) {
        errno = error;
        os_report_errno("pthread_create fail");
        return 0;
    }
    return 1;
}

int os_thread_join(LThread* thr)
{
    if (!thr) return os_refuse(0, "thr is null");
    return pthread_join(thr->thr, nullptr) == 0;
}

int os_thread_detach(LThread* thr)
{
    if (!thr) return os_refuse(0, "thr is null");
    return pthread_detach(thr->thr) == 0;
}

int32 os_thread_self(void)
{
    return static_cast<int32>(static_cast<uint32>(pthread_self()));
}

void os_sleep(int32 i)
{
    if (i <= 0) return;

    const int64_t microseconds = static_cast<int64_t>(i) * 1000;
    struct timeval wait = {static_cast<time_t>(microseconds / 1000000),
                           static_cast<suseconds_t>(microseconds % 1000000)};
    select(0, nullptr, nullptr, nullptr, &wait);
}
