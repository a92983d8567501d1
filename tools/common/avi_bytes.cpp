#include "avi_bytes.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace avi {

uint32_t load(const uint8_t* at, size_t size)
{
    uint32_t value = 0;
    while (size--) value = value << 8 | at[size];
    return value;
}

File::File(const std::string& path, const std::atomic<bool>* toStop)
    : fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), stop(toStop)
{
    struct stat status;
    if (fd < 0) return;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        length = uint64_t(status.st_size);
        return;
    }
    close(fd);
    fd = -1;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

File::~File()
{
    if (fd >= 0) close(fd);
}

bool is_stopped(const File& file)
{
    return file.stop && *file.stop;
}

size_t read_at(const File& file, uint64_t offset, uint8_t* to, size_t count)
{
    size_t done = 0;
    while (done < count && !is_stopped(file)) {
        const ssize_t got = pread(file.fd, to + done, count - done, off_t(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += size_t(got);
    }
    return done;
}

const uint8_t* look(Window& window, uint64_t offset, size_t count)
{
    if (offset > window.file.length || window.file.length - offset < count) return nullptr;
    if (offset < window.begin || offset - window.begin + count > window.held) {
        window.begin = offset - offset % 64; // a pad byte and the header behind it in one read
        window.held = read_at(window.file, window.begin, window.bytes.data(), window.bytes.size());
    }
    const uint64_t skip = offset - window.begin;
    if (window.held >= skip + count) return &window.bytes[skip];
    window.failed = true;
    return nullptr;
}

uint32_t look_word(Window& window, uint64_t offset)
{
    const uint8_t* bytes = look(window, offset, 4);
    return bytes ? load(bytes, 4) : 0;
}

bool is_stream(uint32_t id)
{
    return id == fcc("00dc") || id == fcc("01wb");
}

bool read_head(Window& window, uint64_t at, Head& head)
{
    const uint8_t* bytes = look(window, at, 8);
    if (!bytes) return false;
    head.id = load(bytes, 4);
    head.size = load(bytes + 4, 4);
    head.end = at + 8 + head.size + (head.size & 1);
    return true;
}

} // namespace avi
