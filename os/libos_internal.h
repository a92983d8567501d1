// What the sources of the operating-system layer share.
#pragma once

#include <errno.h>

#include "libos.h"

#define OS_LOCAL __attribute__((visibility("hidden")))

// Reporting a failure: date, file and line, then the message through one of the closing calls. One macro,
// because it carries the place that reports.
#define OS_REPORT(closing, ...)                                                                              \
    (log_buf_lock(), log_buf_date(), log_buf_msg("file: %s line: %d ", __FILE_NAME__, __LINE__),             \
     closing(__VA_ARGS__))
#define os_report(...) OS_REPORT(log_buf_msg_unlock, __VA_ARGS__)
#define os_report_errno(...) OS_REPORT(err_buf_msg_unlock, __VA_ARGS__)
#define os_report_exit(...) OS_REPORT(err_buf_quit_unlock, __VA_ARGS__)

// For a call that refuses what it was given: the report, and what the call is to return.
#define os_refuse(result, ...) (os_report(__VA_ARGS__), (result))
#define os_refuse_errno(result, ...) (os_report_errno(__VA_ARGS__), (result))

// Formatting a date or writing a line may change errno, which the caller's message is about.
struct ErrnoKeeper
{
    const int saved = errno;

    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = saved; }
};

// A cancelled thread ends where it stands: what it had locked stays locked, and what it had begun half done.
// So a call that locks or leaves something half done on its way is finished first, and its thread is
// cancelled behind it.
struct CancelGuard
{
    int saved = PTHREAD_CANCEL_ENABLE;

    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;
    ~CancelGuard() { pthread_setcancelstate(saved, nullptr); }
};

struct MutexGuard
{
    const CancelGuard whole;
    LMutex* const mutex;

    explicit MutexGuard(LMutex* wanted) : mutex(wanted) { os_mutex_lock(mutex); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() { os_mutex_unlock(mutex); }
};

struct ListGuard
{
    const CancelGuard whole;
    DList* const list;

    explicit ListGuard(DList* wanted) : list(wanted) { adt_dlist_lock(list); }
    ListGuard(const ListGuard&) = delete;
    ListGuard& operator=(const ListGuard&) = delete;
    ~ListGuard() { adt_dlist_unlock(list); }
};
