#include "Quorlin_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

InputFile::~InputFile()
{
    if (fd != -1) close(fd);
}

bool open_input(InputFile& input, const char* path)
{
    struct stat status;
    if (!path || stat(path, &status) != 0) return false;
    if (!S_ISREG(status.st_mode)) return true;

    // Not blocking, in case the file has just become a pipe. What would block is a file that a server holds a
    // lease on: it gives that up to those who wait.
    const int flags = O_RDONLY | O_NOCTTY | O_CLOEXEC;
    int fd = open(path, flags | O_NONBLOCK);
    if (fd == -1 && errno == EWOULDBLOCK) fd = open(path, flags);
    if (fd == -1) return false;
    const bool known = fstat(fd, &status) == 0;
    if (!known || !S_ISREG(status.st_mode)) {
        close(fd);
        return known;
    }
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    input.fd = fd;
    input.size = status.st_size;
    return true;
}

size_t read_input(const InputFile& input, void* to, size_t len, bool& failed)
{
    failed = false;
    size_t held = 0;
    while (input.fd != -1 && held < len) {
        const ssize_t got = read(input.fd, static_cast<char*>(to) + held, len - held);
        if (got < 0 && errno == EINTR) continue;
        failed = got < 0;
        if (got <= 0) break;
        held += static_cast<size_t>(got);
    }
    return held;
}

bool read_file_header(const InputFile& input, S_FileHeader& header)
{
    header = {};
    size_t held = 0;
    while (input.fd != -1 && held < sizeof(header)) {
        const ssize_t got = pread(input.fd, reinterpret_cast<char*>(&header) + held, sizeof(header) - held,
                                  static_cast<off_t>(held));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        held += static_cast<size_t>(got);
    }
    return true;
}

FILE* open_output(const char* path)
{
    struct stat status;
    if (stat(path, &status) == 0 && S_ISFIFO(status.st_mode)) return nullptr;

    FILE* file = fopen(path, "wb+e");
    if (!file) return nullptr;
    if (fseeko(file, 0, SEEK_SET) != 0) {
        fclose(file);
        return nullptr;
    }
    return file;
}

void remove_output(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0) return;
    if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) unlink(path);
}

bool is_same_file(const char* one, const char* other)
{
    struct stat a, b;
    return stat(one, &a) == 0 && stat(other, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}
