#include <stddef.h>
#include <string.h>

#include "Quorlin_internal.h"

static const unsigned char FLAG[4] = {0, 0, 0, 2};

static bool is_wanted_header(LPBYTE at, int kind)
{
    if (memcmp(at, FLAG, sizeof(FLAG)) != 0 || !IsValidFrmHeader(at)) return false;
    return kind == ANY_FRAME || (kind == KEY_FRAME && at[offsetof(S_FrameHeader, u8FrameType)] == 0);
}

BOOL FindFrame(LPBYTE _pDataBuf, int _iBufSize, int* _iFramePos, int _iCase)
{
    if (!_pDataBuf || !_iFramePos || _iBufSize < static_cast<int>(FRAME_HEADER_SIZE)) return 0;

    // The flag's last byte is the rare one, so it leads from candidate to candidate.
    LPBYTE const end = _pDataBuf + _iBufSize - FRAME_HEADER_SIZE + sizeof(FLAG);
    LPBYTE last = _pDataBuf + sizeof(FLAG) - 1;
    while (last < end) {
        last = static_cast<LPBYTE>(memchr(last, FLAG[3], static_cast<size_t>(end - last)));
        if (!last) return 0;
        LPBYTE const start = last - (sizeof(FLAG) - 1);
        if (is_wanted_header(start, _iCase)) {
            *_iFramePos = static_cast<int>(start - _pDataBuf);
            return 1;
        }
        ++last;
    }
    return 0;
}
