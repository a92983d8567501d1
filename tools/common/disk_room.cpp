#include "disk_room.h"
#include "cause.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr uint64_t Ahead = 4 << 20; // asked for in one go
constexpr uint64_t Spare = 1 << 20; // left free where the file system promises nothing

uint64_t size_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return INT64_MAX;
    return std::min<uint64_t>(limit.rlim_cur, INT64_MAX);
}

// 0, or the reason as an error number.
int promise(int fd, uint64_t from, uint64_t to)
{
    int result;
    do result = fallocate(fd, FALLOC_FL_KEEP_SIZE, off_t(from), off_t(to - from));
    while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

int look_for_space(int fd, uint64_t size)
{
    struct stat status;
    struct statvfs disk;
    if (fstat(fd, &status) != 0 || fstatvfs(fd, &disk) != 0) return errno;
    return uint64_t(status.st_size) + uint64_t(disk.f_bavail) * disk.f_frsize >= size + Spare ? 0 : ENOSPC;
}

} // namespace

bool reserve_room(DiskRoom& room, uint64_t size, std::string& why)
{
    if (size <= room.reserved) return true;
    const uint64_t limit = size_limit();
    uint64_t wanted = std::min(size + Ahead, limit);
    int error = size > limit ? EFBIG : promise(room.fd, room.reserved, wanted);
    if (error == ENOSPC || error == EDQUOT) {
        wanted = size;
        error = promise(room.fd, room.reserved, wanted);
    }
    // Some file systems make no promises: what is free at the moment has to do, each time anew.
    if (error == EOPNOTSUPP || error == ENOSYS) {
        wanted = room.reserved;
        error = look_for_space(room.fd, size);
    }
    if (error == 0) room.reserved = wanted;
    if (error == 0) return true;
    why = strerror(error);
    errno = error;
    return false;
}

bool reserve_start(DiskRoom& room, std::string& why)
{
    return reserve_room(room, std::min(Ahead, size_limit()), why);
}

std::optional<uint64_t> free_room(const std::string& directory)
{
    struct statvfs disk;
    if (statvfs(directory.c_str(), &disk) != 0) return std::nullopt;
    return uint64_t(disk.f_bavail) * disk.f_frsize;
}

const char* write_cause(int error)
{
    const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    return full ? cli::cause::DiskFull : cli::cause::CannotWrite;
}

void release_room(const std::string& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && truncate(path.c_str(), status.st_size) != 0) return;
}

} // namespace tools
