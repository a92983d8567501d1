// Preloaded into a tool: tells in FAULT_LOG what it asks of the system, in order, and lets what FAULT names
// go wrong: "CALL:N:WHAT" (";" between several), at the N-th such call, counted over all of the tool's
// processes, or at each for N = *. WHAT is an error number, "short" (half of it is done), "kill" (the process
// ends there), or "cutN" (N bytes are done, and then the process ends). FAULT_LIMIT is the largest size of a
// file.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

struct Fault
{
    char call[16], at[16], what[16];
    std::atomic<long> count;
};

static Fault* s_faults; // in memory that the tool's processes share
static int s_count, s_log = -1;

__attribute__((constructor)) static void set_up()
{
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    s_faults = static_cast<Fault*>(shared);
    for (const char* at = getenv("FAULT"); at && *at; at = strchr(at, ';') ? strchr(at, ';') + 1 : nullptr) {
        Fault& fault = s_faults[s_count++];
        sscanf(at, "%15[^:]:%15[^:]:%15[^;]", fault.call, fault.at, fault.what);
    }
    if (const char* path = getenv("FAULT_LOG"))
        s_log = static_cast<int>(syscall(SYS_open, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const rlim_t size = getenv("FAULT_LIMIT") ? strtoul(getenv("FAULT_LIMIT"), nullptr, 10) : RLIM_INFINITY;
    const rlimit limit = {size, size};
    if (size != RLIM_INFINITY) setrlimit(RLIMIT_FSIZE, &limit);
}

// What becomes of one call.
struct Call
{
    const char* name;
    long long offset = -1;
    char path[512] = "", to[512] = "";
    const char* fault = nullptr; // "" when there is an error to give

    Call(const char* called, int fd, long long where = -1, size_t* len = nullptr)
        : name(called), offset(where)
    {
        char link[32];
        snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
        const ssize_t length = readlink(link, path, sizeof(path) - 1);
        path[length > 0 ? length : 0] = 0;
        if (!strcmp(name, "read") && !strncmp(path, "pipe:", 5)) name = "read_pipe"; // not the input
        meet();
        if (len) *len = cut(*len);
    }
    Call(const char* called, const char* from, const char* dest = "") : name(called)
    {
        snprintf(path, sizeof(path), "%s", from);
        snprintf(to, sizeof(to), "%s", dest);
        meet();
    }
    void meet()
    {
        for (int i = 0; i < s_count; ++i) {
            if (strcmp(s_faults[i].call, name) != 0) continue;
            const long n = ++s_faults[i].count;
            if (s_faults[i].at[0] == '*' || n == atol(s_faults[i].at)) fault = s_faults[i].what;
        }
        if (fault && !strcmp(fault, "kill")) end();
    }
    void end() const
    {
        tell("killed");
        kill(getpid(), SIGKILL);
    }
    bool fails() const
    {
        if (!fault || atoi(fault) <= 0) return false;
        errno = atoi(fault);
        tell_failed();
        return true;
    }
    size_t cut(size_t len) const
    {
        if (fault && !strncmp(fault, "cut", 3)) return std::min(len, size_t(atol(fault + 3)));
        return fault && !strcmp(fault, "short") ? (len + 1) / 2 : len;
    }
    void tell_failed() const
    {
        char number[12];
        snprintf(number, sizeof(number), "%d", errno);
        tell(number);
    }
    void tell(const char* result) const
    {
        char line[1200];
        const int reason = errno;
        const int length = snprintf(line, sizeof(line), "%d\t%s\t%s\t%lld\t%s\t%s\n", getpid(), name, result,
                                    offset, path, to);
        if (s_log >= 0) syscall(SYS_write, s_log, line, length);
        errno = reason;
    }
    template <class Result>
    Result done(Result result) const
    {
        result == Result(-1) ? tell_failed() : tell("ok");
        if (fault && !strncmp(fault, "cut", 3)) end();
        return result;
    }
};

template <auto* Function>
static auto* real(const char* name)
{
    static auto* const found = reinterpret_cast<decltype(Function)>(dlsym(RTLD_NEXT, name));
    return found;
}

// A failing close() still closes.
static int close_failing(int fd)
{
    const int reason = errno;
    syscall(SYS_close, fd);
    errno = reason;
    return -1;
}

// What was buffered is lost, and the stream remembers it.
static int lose(FILE* file)
{
    __fpurge(file);
    file->_flags |= _IO_ERR_SEEN;
    return EOF;
}

// The last byte of the file did not come to the disk.
static int close_losing(FILE* file, const char* path)
{
    const int reason = errno;
    struct stat status;
    const bool written = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) && __fwritable(file);
    real<&fclose>("fclose")(file);
    if (written && stat(path, &status) == 0) syscall(SYS_truncate, path, status.st_size - 1);
    errno = reason;
    return EOF;
}

extern "C" {

// One macro, because each line defines the function that it names.
#define CALL(failed, name, about, arguments, ...)                                                            \
    auto name(__VA_ARGS__) noexcept(noexcept(name arguments))->decltype(name arguments)                      \
    {                                                                                                        \
        const Call call about;                                                                               \
        if (call.fails()) return failed;                                                                     \
        return call.done(real<&name>(#name) arguments);                                                      \
    }

CALL(-1, fsync, ("fsync", fd), (fd), int fd)
CALL(close_failing(fd), close, ("close", fd), (fd), int fd)
CALL(-1, flock, ("flock", fd), (fd, how), int fd, int how)
CALL(-1, ftruncate, ("ftruncate", fd), (fd, size), int fd, off_t size)
CALL(-1, truncate, ("truncate", path), (path, size), const char* path, off_t size)
CALL(-1, fallocate, ("fallocate", fd), (fd, mode, from, len), int fd, int mode, off_t from, off_t len)
CALL(-1, sync_file_range, ("sync_file_range", fd), (fd, from, len, how), int fd, off_t from, off_t len,
     unsigned how)
CALL(-1, pread, ("pread", fd, at, &len), (fd, to, len, at), int fd, void* to, size_t len, off_t at)
CALL(-1, unlink, ("unlink", path), (path), const char* path)
CALL(-1, rename, ("rename", from, to), (from, to), const char* from, const char* to)
CALL(-1, link, ("link", from, to), (from, to), const char* from, const char* to)
CALL(-1, renameat2, ("renameat2", from, to), (at, from, to_at, to, flags), int at, const char* from,
     int to_at, const char* to, unsigned flags)
CALL(-1, fork, ("fork", ""), ())
CALL(-1, waitpid, ("waitpid", ""), (pid, status, how), pid_t pid, int* status, int how)
CALL(-1, ppoll, ("ppoll", ""), (fds, count, wait, mask), pollfd* fds, nfds_t count, const timespec* wait,
     const sigset_t* mask)
CALL(-1, read, ("read", fd, -1, &len), (fd, to, len), int fd, void* to, size_t len)
CALL(-1, write, ("write", fd, -1, &len), (fd, from, len), int fd, const void* from, size_t len)
CALL(-1, pwrite, ("pwrite", fd, at, &len), (fd, from, len, at), int fd, const void* from, size_t len,
     off_t at)
CALL(nullptr, fopen, ("fopen", path), (path, mode), const char* path, const char* mode)
CALL(lose(file), fflush, ("fflush", file ? fileno(file) : -1), (file), FILE* file)
CALL(close_losing(file, call.path), fclose, ("fclose", fileno(file)), (file), FILE* file)
CALL((lose(file), 0), fwrite, ("fwrite", fileno(file)), (from, size, count, file), const void* from,
     size_t size, size_t count, FILE* file)

ssize_t pwritev(int fd, const iovec* parts, int count, off_t at)
{
    const Call call("pwritev", fd, at);
    if (call.fails()) return -1;
    if (!call.fault) return call.done(real<&pwritev>("pwritev")(fd, parts, count, at));
    return call.done(real<&pwrite>("pwrite")(fd, parts->iov_base, call.cut(parts->iov_len), at));
}

int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    const Call call("open", path);
    return call.fails() ? -1 : call.done(real<&open>("open")(path, flags, mode));
}
}
