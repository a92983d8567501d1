#include "file_lock.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

// What was opened may have been renamed or removed before it was locked.
Locked take_lock(const std::string& path, FileLock& lock)
{
    if (flock(lock.fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? Locked::others : Locked::not_at_all;
    return still_names(path, lock) ? Locked::ours : Locked::gone;
}

} // namespace

FileLock::~FileLock()
{
    if (fd >= 0) close(fd);
}

FileLock::FileLock(FileLock&& other) noexcept : fd(std::exchange(other.fd, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept
{
    std::swap(fd, other.fd);
    return *this;
}

bool still_names(const std::string& path, const FileLock& lock)
{
    struct stat held, named;
    return fstat(lock.fd, &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

Locked lock_file(const std::string& path, FileLock& lock)
{
    constexpr int Flags = O_NONBLOCK | O_CLOEXEC;
    lock = FileLock();
    lock.fd = open(path.c_str(), O_RDWR | Flags); // some network file systems lock for writers only
    if (lock.fd < 0 && (errno == EACCES || errno == EROFS || errno == ETXTBSY))
        lock.fd = open(path.c_str(), O_RDONLY | Flags);
    if (lock.fd < 0) return errno == ENOENT ? Locked::gone : Locked::not_at_all;
    return take_lock(path, lock);
}

Locked create_locked(const std::string& path, FileLock& lock)
{
    lock = FileLock();
    lock.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (lock.fd < 0) return Locked::not_at_all;
    const Locked locked = take_lock(path, lock);
    return locked == Locked::not_at_all ? Locked::ours : locked;
}

} // namespace tools
