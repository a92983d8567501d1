#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>

#include "Quorlin_internal.h"

// The one way into the AVI file. A whole-file conversion has its payloads lying still in the read window, so
// their writes are gathered into a few large ones; for everybody else the stream's own buffer gathers headers
// and lets payloads through.

static const int MAX_PARTS = 1024; // what the system takes in one call
static const int SMALL = 16;       // chunk headers and pad bytes come from the stack and are copied

static struct
{
    bool on;
    bool failed;
    int64_t position; // of the first part in the file
    int64_t pending;  // bytes in all parts
    uint64_t frames;  // that count as recorded and may have parts among these
    int count;
    int copied;
    struct iovec parts[MAX_PARTS];
    unsigned char small[MAX_PARTS * SMALL];
} s_gather;

static void add_part(void* data, size_t len)
{
    s_gather.pending += static_cast<int64_t>(len);
    struct iovec* last = s_gather.count > 0 ? &s_gather.parts[s_gather.count - 1] : nullptr;
    if (last && static_cast<unsigned char*>(last->iov_base) + last->iov_len == data) {
        last->iov_len += len;
        return;
    }
    s_gather.parts[s_gather.count++] = {data, len};
}

static void gather(UCHAR* data, int len)
{
    if (s_gather.count == MAX_PARTS || s_gather.copied + SMALL > static_cast<int>(sizeof(s_gather.small)))
        flush_gathered();
    if (len <= SMALL) {
        UCHAR* copy = s_gather.small + s_gather.copied;
        memcpy(copy, data, static_cast<size_t>(len));
        s_gather.copied += len;
        data = copy;
    }
    add_part(data, static_cast<size_t>(len));
}

// Drop what was written from the front of the parts.
static struct iovec* advance(struct iovec* part, size_t written)
{
    while (written > 0 && written >= part->iov_len) {
        written -= part->iov_len;
        ++part;
    }
    part->iov_base = static_cast<char*>(part->iov_base) + written;
    part->iov_len -= written;
    return part;
}

static bool write_parts(int fd)
{
    struct iovec* part = s_gather.parts;
    struct iovec* const end = part + s_gather.count;
    while (s_gather.pending > 0) {
        const ssize_t put = pwritev(fd, part, static_cast<int>(end - part), s_gather.position);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        s_gather.position += put;
        s_gather.pending -= put;
        if (s_gather.pending > 0) part = advance(part, static_cast<size_t>(put));
    }
    return true;
}

void flush_gathered()
{
    if (!s_gather.on) return;
    if (!s_gather.failed && !write_parts(fileno(g_tSdv2Avi.m_fsRec))) s_gather.failed = true;
    if (s_gather.failed) take_back_recorded(s_gather.frames);
    s_gather.count = 0;
    s_gather.copied = 0;
    s_gather.pending = 0;
    s_gather.frames = 0;
}

void frame_gathered()
{
    if (s_gather.on) s_gather.frames += 1;
}

void seek_file(int64_t position, int whence)
{
    if (fseeko(g_tSdv2Avi.m_fsRec, position, whence) != 0) s_gather.failed = true;
}

bool begin_gathering()
{
    FILE* file = g_tSdv2Avi.m_fsRec;
    if (s_gather.on || !file) return false;

    const int64_t position = fflush(file) == 0 ? ftello(file) : -1;
    if (position < 0) return false;

    s_gather.position = position;
    s_gather.on = true;
    return true;
}

void end_gathering()
{
    if (!s_gather.on) return;
    flush_gathered();
    s_gather.on = false;
    seek_file(s_gather.position, SEEK_SET);
}

int WriteTofile(UCHAR* _dataBuf, int _idataLen)
{
    FILE* file = g_tSdv2Avi.m_fsRec;
    if (!file) return -1;
    if (!_dataBuf || _idataLen <= 0) return 0;

    const CancelGuard whole;
    // A write that fails leaves its mark, which is asked for when the recording is stopped.
    if (s_gather.on)
        gather(_dataBuf, _idataLen);
    else
        fwrite(_dataBuf, 1, static_cast<size_t>(_idataLen), file);
    return 0;
}

int64_t output_position()
{
    return s_gather.on ? s_gather.position + s_gather.pending : ftello(g_tSdv2Avi.m_fsRec);
}

void seek_output(int64_t position)
{
    flush_gathered();
    if (s_gather.on)
        s_gather.position = position;
    else
        seek_file(position, SEEK_SET);
}

bool output_failed()
{
    return s_gather.failed || (g_tSdv2Avi.m_fsRec && ferror(g_tSdv2Avi.m_fsRec));
}

void forget_output()
{
    s_gather.on = false;
    s_gather.failed = false;
    s_gather.count = 0;
    s_gather.copied = 0;
    s_gather.pending = 0;
    s_gather.frames = 0;
}
