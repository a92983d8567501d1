#include "faulty_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <iconv.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>

static Plan s_plan;
static std::atomic<bool> s_on;
static std::atomic<long> s_count;
static std::atomic<const char*> s_struck;

void begin_faults(const Plan& plan)
{
    s_plan = plan;
    s_count = 0;
    s_struck = nullptr;
    s_on = true;
}

const char* struck_call()
{
    return s_struck;
}

void end_faults()
{
    s_on = false;
}

static bool is_struck(Fault fault, unsigned family, const char* name)
{
    if (!s_on || s_plan.fault != fault || !(s_plan.families & family)) return false;

    const long late = ++s_count - s_plan.n;
    const long period = fault == Fault::interrupted ? 2 : 1;
    const bool struck = s_plan.lasting ? late >= 0 && late % period == 0 : late == 0;
    const char* none = nullptr;
    if (struck) s_struck.compare_exchange_strong(none, name);
    return struck;
}

// Memory that libc and a sanitizer's runtime take for themselves does not count.
static bool is_the_librarys(const void* caller)
{
    Dl_info info;
    return s_on && dladdr(caller, &info) && strstr(info.dli_fname, "/libquorlin.so");
}

static bool fails(unsigned family, const char* name, int error)
{
    if (is_struck(Fault::disturbed, family, name)) s_plan.disturb();
    if (family & BREAKS_OFF && is_struck(Fault::interrupted, family, name))
        error = EINTR;
    else if (!is_struck(Fault::failing, family, name))
        return false;
    errno = error;
    return true;
}

static size_t cut(Family family, const char* name, size_t len)
{
    return len > 1 && is_struck(Fault::halved, family, name) ? len / 2 : len;
}

template <auto* Call>
static auto* real(const char* name)
{
    static auto* const found = reinterpret_cast<decltype(Call)>(dlsym(RTLD_NEXT, name));
    return found;
}

// A stream remembers that a write failed.
static size_t marked(FILE* file)
{
    if (file) file->_flags |= _IO_ERR_SEEN;
    return 0;
}

extern "C" {

// One macro, because each line defines the function that it names.
#define CALL(failed, family, error, name, arguments, ...)                                                    \
    auto name(__VA_ARGS__) noexcept(noexcept(name arguments))->decltype(name arguments)                      \
    {                                                                                                        \
        const bool counts = (family) != MEMORY || is_the_librarys(__builtin_return_address(0));              \
        return counts && fails(family, #name, error) ? failed : real<&name>(#name) arguments;                \
    }

CALL(nullptr, MEMORY, ENOMEM, malloc, (size), size_t size)
CALL(nullptr, MEMORY, ENOMEM, calloc, (count, size), size_t count, size_t size)
CALL(nullptr, FILES, EMFILE, fopen, (path, mode), const char* path, const char* mode)
CALL(-1, FILES, EIO, fseeko, (file, to, whence), FILE* file, off_t to, int whence)
CALL(marked(file), FILES, ENOSPC, fwrite, (from, size, count, file), const void* from, size_t size,
     size_t count, FILE* file)
CALL((marked(file), EOF), FILES, ENOSPC, fflush, (file), FILE* file)
CALL((real<&fclose>("fclose")(file), EOF), FILES, ENOSPC, fclose, (file), FILE* file)
CALL(-1, FILES | BREAKS_OFF, EIO, ftruncate, (fd, len), int fd, off_t len)
CALL(-1, FILES | BREAKS_OFF, EIO, read, (fd, to, cut(FILES, "read", len)), int fd, void* to, size_t len)
CALL(-1, FILES | BREAKS_OFF, EIO, pread, (fd, to, cut(FILES, "pread", len), at), int fd, void* to, size_t len,
     off_t at)
CALL(-1, FILES | BREAKS_OFF, ENOSPC, pwrite, (fd, from, cut(FILES, "pwrite", len), at), int fd,
     const void* from, size_t len, off_t at)
CALL(EAGAIN, THREADS, EAGAIN, pthread_create, (thread, kind, body, arg), pthread_t* thread,
     const pthread_attr_t* kind, void* (*body)(void*), void* arg)
CALL(ENOMEM, THREADS, ENOMEM, pthread_mutex_init, (mutex, kind), pthread_mutex_t* mutex,
     const pthread_mutexattr_t* kind)
CALL(-1, SOCKETS, EMFILE, socket, (domain, type, protocol), int domain, int type, int protocol)
CALL(-1, SOCKETS, EADDRINUSE, bind, (fd, to, len), int fd, const sockaddr* to, socklen_t len)
CALL(-1, SOCKETS, EADDRINUSE, listen, (fd, backlog), int fd, int backlog)
CALL(-1, SOCKETS | BREAKS_OFF, EMFILE, accept4, (fd, from, len, flags), int fd, sockaddr* from,
     socklen_t* len, int flags)
CALL(-1, SOCKETS, ENETUNREACH, connect, (fd, to, len), int fd, const sockaddr* to, socklen_t len)
CALL(-1, SOCKETS, ECONNRESET, send, (fd, from, cut(SOCKETS, "send", len), flags), int fd, const void* from,
     size_t len, int flags)
CALL(-1, SOCKETS, ECONNRESET, recv, (fd, to, cut(SOCKETS, "recv", len), flags), int fd, void* to, size_t len,
     int flags)
CALL(-1, SOCKETS, ENOBUFS, sendto, (fd, from, len, flags, to, size), int fd, const void* from, size_t len,
     int flags, const sockaddr* to, socklen_t size)
CALL(-1, SOCKETS, ECONNREFUSED, recvfrom, (fd, into, len, flags, from, size), int fd, void* into, size_t len,
     int flags, sockaddr* from, socklen_t* size)
CALL(iconv_t(-1), FILES, EMFILE, iconv_open, (to, from), const char* to, const char* from)
CALL(-1, SOCKETS, EMFILE, pipe2, (ends, flags), int* ends, int flags)
CALL(-1, SOCKETS, EMFILE, epoll_create1, (flags), int flags)
CALL(-1, SOCKETS, ENOSPC, epoll_ctl, (set, operation, fd, event), int set, int operation, int fd,
     epoll_event* event)
CALL(-1, SOCKETS | BREAKS_OFF, EINTR, epoll_wait, (set, events, most, wait), int set, epoll_event* events,
     int most, int wait)

ssize_t pwritev(int fd, const iovec* parts, int count, off_t at)
{
    if (fails(FILES | BREAKS_OFF, "pwritev", ENOSPC)) return -1;
    const size_t len = cut(FILES, "pwritev", parts->iov_len);
    if (len < parts->iov_len) return real<&pwrite>("pwrite")(fd, parts->iov_base, len, at);
    return real<&pwritev>("pwritev")(fd, parts, count, at);
}

// What pread() becomes where the compiler knows how much room there is.
ssize_t __pread64_chk(int fd, void* to, size_t len, off_t at, size_t)
{
    return pread(fd, to, len, at);
}

int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    return fails(FILES, "open", EMFILE) ? -1 : real<&open>("open")(path, flags, mode);
}
}
