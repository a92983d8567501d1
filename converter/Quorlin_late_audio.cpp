#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "Quorlin_internal.h"
#include "Quorlin_running.h"

// Audio that first appears after a layout for video only: its chunks are in the file, but the header area has
// no room for its stream headers. The chunks are moved up, from the end, so that nothing is overwritten
// unread.

static const size_t BLOCK = 16384;

static bool read_whole(int fd, char* to, size_t len, int64_t at)
{
    while (len > 0) {
        const ssize_t got = pread(fd, to, len, at);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        at += got;
        len -= static_cast<size_t>(got);
    }
    return true;
}

static bool write_whole(int fd, const char* from, size_t len, int64_t at)
{
    while (len > 0) {
        const ssize_t put = pwrite(fd, from, len, at);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        from += put;
        at += put;
        len -= static_cast<size_t>(put);
    }
    return true;
}

int late_audio_room()
{
    return AVI_MoviSkipLen(AVI_VideoAndAudio) - AVI_MoviSkipLen(AVI_Video);
}

static bool cut_to(int fd, int64_t len)
{
    int result;
    do result = ftruncate(fd, len);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

// Try how much room there is by writing it. What the index is to take is given back at once.
static bool grow(int fd, int64_t end, int64_t index)
{
    const char zeros[4096] = {};
    const int64_t last = end + late_audio_room() + index;
    for (int64_t at = end; at < last;) {
        const size_t len = static_cast<size_t>(std::min<int64_t>(sizeof(zeros), last - at));
        if (!write_whole(fd, zeros, len, at)) {
            cut_to(fd, end);
            return false;
        }
        at += static_cast<int64_t>(len);
    }
    return cut_to(fd, end + late_audio_room());
}

Moved move_chunks_up(FILE* file, int64_t end, int64_t index)
{
    const int fd = fileno(file);
    const int64_t begin = AVI_MoviSkipLen(AVI_Video) + static_cast<int64_t>(sizeof(AVI_MoviHeader));
    if (fflush(file) != 0 || !grow(fd, end, index)) return Moved::not_at_all;

    char block[BLOCK];
    bool moved = true;
    for (int64_t rest = end; moved && rest > begin;) {
        const size_t len = static_cast<size_t>(std::min<int64_t>(BLOCK, rest - begin));
        rest -= static_cast<int64_t>(len);
        moved = !is_cancelled() && read_whole(fd, block, len, rest) &&
                write_whole(fd, block, len, rest + late_audio_room());
    }
    return moved ? Moved::whole : Moved::torn;
}
