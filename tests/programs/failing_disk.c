/*
 * A disk that cannot read parts of one file, for programs under test: LD_PRELOAD this, with BAD_FILE=PATH and
 * BAD_BYTES=FROM-TO,FROM-TO... As a real one, it reads up to the place, and fails when it begins there.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static int is_bad_file(int fd)
{
    struct stat ours, bad;
    const char* path = getenv("BAD_FILE");
    return path && stat(path, &bad) == 0 && fstat(fd, &ours) == 0 && ours.st_ino == bad.st_ino &&
           ours.st_dev == bad.st_dev;
}

/* How many of the bytes can be read; -1 when the first cannot. */
static long readable(int fd, long at, long len)
{
    const char* list = getenv("BAD_BYTES");
    long from, to;
    if (!list || !is_bad_file(fd)) return len;
    for (; list && sscanf(list, ",%ld-%ld" + (*list != ','), &from, &to) == 2; list = strchr(list + 1, ',')) {
        if (at >= from && at < to) return -1;
        if (at < from && at + len > from) len = from - at;
    }
    return len;
}

static ssize_t read_at(long call, int fd, void* to, size_t len, off_t at)
{
    const long most = readable(fd, at, (long)len);
    if (most >= 0) return syscall(call, fd, to, most, at);
    errno = EIO;
    return -1;
}

ssize_t read(int fd, void* to, size_t len)
{
    return read_at(SYS_read, fd, to, len, syscall(SYS_lseek, fd, 0L, SEEK_CUR));
}

ssize_t pread64(int fd, void* to, size_t len, off_t at)
{
    return read_at(SYS_pread64, fd, to, len, at);
}

ssize_t pread(int fd, void* to, size_t len, off_t at)
{
    return read_at(SYS_pread64, fd, to, len, at);
}
