#include "libos_internal.h"

#include <iconv.h>
#include <stdio.h>
#include <string.h>

int32 gpiCustomFunc[1024];

static const char HEX_DIGITS[] = "0123456789abcdef";

int os_encode(char* in_buf, int32 in_num, char* out_buf)
{
    if (!in_buf || !out_buf) return 0;
    if (in_num <= 0) return 1;

    for (int32 i = 0; i < in_num; ++i) {
        const uint8 byte = static_cast<uint8>(in_buf[i]);
        *out_buf++ = HEX_DIGITS[byte >> 4];
        *out_buf++ = HEX_DIGITS[byte & 15];
    }
    *out_buf = 0;
    return 1;
}

int os_decode(char* in_buf, int32 in_num, char* out_buf)
{
    if (!in_buf || !out_buf) return 0;

    unsigned int byte = 0; // a pair that holds no number leaves the one before it
    for (int32 i = 0; i < in_num / 2; ++i) {
        const char pair[3] = {in_buf[2 * i], in_buf[2 * i + 1], 0};
        sscanf(pair, "%x", &byte); // NOLINT(cert-err34-c): two characters cannot overflow
        out_buf[i] = static_cast<char>(byte);
    }
    return 1;
}

// The result code of a conversion that failed with this errno; 0 where it is not a failure.
static int32 convert_result(int error)
{
    switch (error) {
    case EINVAL:
        return 0; // the input ends inside a character
    case EILSEQ:
        return -3;
    case E2BIG:
        return -5;
    default:
        return -6;
    }
}

static int32 convert(iconv_t converter, char* save, int32 savelen, char* src, int32 srclen)
{
    if (srclen <= 0) {
        errno = EINVAL;
        return -1;
    }
    // What opening the converter set errno to is the cause; a descriptor that failed is not handed on.
    if (converter == reinterpret_cast<iconv_t>(-1)) return -6;
    if (!save || !src) {
        errno = EINVAL;
        return -6;
    }

    const size_t room = savelen > 0 ? static_cast<size_t>(savelen) : 0;
    size_t in_left = static_cast<size_t>(srclen);
    size_t out_left = room;
    char* out = save;
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    if (iconv(converter, &src, &in_left, &out, &out_left) == static_cast<size_t>(-1)) {
        const int32 result = convert_result(errno);
        if (result < 0) return result;
    }
    return static_cast<int32>(strnlen(save, room));
}

int32 os_code_convert(const char* from, const char* to, char* save, int32 savelen, char* src, int32 srclen)
{
    const CancelGuard whole;
    iconv_t converter = reinterpret_cast<iconv_t>(-1);
    errno = EINVAL;
    if (from && to) converter = iconv_open(to, from);

    const int32 result = convert(converter, save, savelen, src, srclen);
    if (result < 0) os_report_errno("%s", "");
    if (converter != reinterpret_cast<iconv_t>(-1)) iconv_close(converter);
    return result;
}

int32 getcustomfunction(int _iCustomFunc)
{
    if (_iCustomFunc < 0 || _iCustomFunc > 1023) return 0;
    return gpiCustomFunc[_iCustomFunc];
}
