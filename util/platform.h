/*
 * platform.h: the Windows-style names that the converter's interface is written in, and a handful of
 * Windows calls on POSIX, for source code that was written against them.
 *
 * Pointers are not NULL. None of the calls reports anything. Result codes of type long are 0 in every case.
 */
#ifndef QUORLIN_PLATFORM_H
#define QUORLIN_PLATFORM_H

#include <limits.h>
#include <stdint.h>

#if defined(__GNUC__)
#define QUORLIN_API __attribute__((visibility("default")))
#else
#define QUORLIN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "records are file formats here and are written as they lie in memory: little-endian targets only"
#endif

/* Truth value of the interface: 32 bits wide on every target, 0 or 1. */
typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef uint8_t UCHAR;
typedef uint8_t* LPBYTE;
typedef uint16_t WORD;
/* 32 bits wide: long itself where that is so, as on 32-bit ARM, and int elsewhere. */
#if LONG_MAX == 2147483647
typedef long LONG;
#else
typedef int32_t LONG;
#endif
typedef uint32_t DWORD;
/* Four ASCII characters, the first in the lowest byte. */
typedef uint32_t FOURCC;
/* A socket is a file descriptor here. */
typedef int32_t SOCKET;

/* "Wait without limit", all bits set. */
static const DWORD INFINITE = 4294967295u;

/**
 * The last error code: one value for the whole process, not one per thread. It is read and written
 * atomically, but a value set by one thread may be overwritten by another at any time.
 * WSASetLastError() returns the code it was given; the two getters return the same value.
 */
QUORLIN_API void SetLastError(int ec);
QUORLIN_API int GetLastError(void);
QUORLIN_API int WSASetLastError(int ec);
QUORLIN_API int WSAGetLastError(void);

/**
 * Copy the string pSrc into the size bytes at pDest, cut to size - 1 characters. pDest[size - 1] becomes
 * zero in every case, and the text is zero-terminated where it ends. A size of 0 or less writes nothing.
 *
 * @return 0, also when the copy was cut
 */
QUORLIN_API long StringCbCopyA(char* pDest, int size, const char* pSrc);

/** Store the length of pSrc in characters, without its terminator, in *cb. Returns 0. */
QUORLIN_API long StringCbLengthA(const char* pSrc, unsigned int* cb);

/**
 * Format into the size bytes at pBuf, cut to size - 1 characters. pBuf[size - 1] becomes zero in every
 * case. A size of 0 or less writes nothing.
 *
 * @return 0, also when the text was cut
 */
QUORLIN_API long StringCbPrintfA(char* pBuf, int size, const char* pFmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/** Store v in *p and return what *p held before, as one atomic step on four bytes. */
QUORLIN_API LONG InterlockedExchange(LONG* p, LONG v);

/** Close the descriptor s. Returns the platform's result: 0, or -1 with errno set. */
QUORLIN_API int closesocket(SOCKET s);

#ifdef __cplusplus
}
#endif

#endif
