#include "platform.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

static std::atomic<int> _lastError;

void SetLastError(int ec)
{
    _lastError = ec;
}

int GetLastError(void)
{
    return _lastError;
}

int WSASetLastError(int ec)
{
    _lastError = ec;
    return ec;
}

int WSAGetLastError(void)
{
    return _lastError;
}

long StringCbCopyA(char* pDest, int size, const char* pSrc)
{
    if (size <= 0) return 0;

    const size_t room = static_cast<size_t>(size) - 1;
    const size_t len = strnlen(pSrc, room);
    memmove(pDest, pSrc, len);
    pDest[len] = 0;
    pDest[room] = 0;
    return 0;
}

long StringCbLengthA(const char* pSrc, unsigned int* cb)
{
    *cb = static_cast<unsigned int>(strlen(pSrc));
    return 0;
}

long StringCbPrintfA(char* pBuf, int size, const char* pFmt, ...)
{
    if (size <= 0) return 0;

    va_list args;
    va_start(args, pFmt);
    vsnprintf(pBuf, static_cast<size_t>(size), pFmt, args);
    va_end(args);
    pBuf[size - 1] = 0;
    return 0;
}

LONG InterlockedExchange(LONG* p, LONG v)
{
    return std::atomic_ref<LONG>(*p).exchange(v);
}

int closesocket(SOCKET s)
{
    return close(s);
}
