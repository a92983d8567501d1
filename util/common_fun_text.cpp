#include "common_fun.h"

#include <ctype.h>
#include <string.h>

// An empty separator is found nowhere: splitting at it would never come to an end.
static const char* find(const char* text, const char* separator)
{
    return *separator ? strstr(text, separator) : nullptr;
}

int OnCharLeft(const char* c1, const char* c2, char* c3)
{
    if (!c1 || !c2 || !c3) return -1;

    const char* found = find(c1, c2);
    const size_t length = found ? static_cast<size_t>(found - c1) : 0;
    memmove(c3, c1, length);
    c3[length] = 0;
    return 0;
}

int OnCharRight(const char* c1, const char* c2, char* c3)
{
    if (!c1 || !c2 || !c3) return -1;

    const char* found = find(c1, c2);
    if (!found) {
        *c3 = 0;
        return 0;
    }
    found += strlen(c2);
    memmove(c3, found, strlen(found) + 1);
    return 0;
}

int SplitStringToArray(char* cSource, char* cSplitChar, char** cDest)
{
    if (!cSource || !cSplitChar || !cDest) return -1;

    int i = 0;
    for (; *cSource; ++i) {
        OnCharLeft(cSource, cSplitChar, cDest[i]);
        OnCharRight(cSource, cSplitChar, cSource);
    }
    return i;
}

int SplitStringToArrayEx(char* cSource, char* cSplitChar, char** cDest, int len)
{
    if (!cSource || !cSplitChar || !cDest) return -1;

    int i = 0;
    while (*cSource) {
        if (len <= 0) return -1;
        OnCharLeft(cSource, cSplitChar, cDest[i]);
        OnCharRight(cSource, cSplitChar, cSource);
        if (++i >= len) return -1;
    }
    return i;
}

int SplitString(unsigned char* _pcSrc, unsigned char* _pcSplit, unsigned char** _ppcDst, int _iFieldLen,
                int _iFieldNum)
{
    if (!_pcSrc || !_pcSplit || !_ppcDst) return -1;

    int field = 0;
    int length = 0;
    for (; *_pcSrc; ++_pcSrc) {
        if (*_pcSrc == *_pcSplit) {
            length = 0;
            if (++field >= _iFieldNum) return -3;
            continue;
        }
        if (field >= _iFieldNum) return -3;
        if (_iFieldLen <= 0) return -2;
        if (!_ppcDst[field]) return -1;
        _ppcDst[field][length++] = *_pcSrc;
        if (length >= _iFieldLen) return -2;
    }
    return field + 1;
}

int strtoken_r(char* str, char* delim, char** array, int kwSect)
{
    if (!str || !delim || !array || kwSect < 1) return -1;

    array[0] = str;
    for (int i = 1;; ++i) {
        const char* found = find(array[i - 1], delim);
        if (!found) return i;
        char* end = array[i - 1] + (found - array[i - 1]);
        *end = 0;
        array[i] = end + 1;
        if (i == kwSect) return kwSect;
    }
}

int kt_strnchr(char* _strSrc, int _iLen, char _c, char** _strDes, int* _pistrLen, int _n)
{
    if (!_strSrc || _iLen <= 0) return -1;

    int fields = 0;
    int start = 0;
    bool between = true;
    for (int i = 0; i < _iLen; ++i) {
        const int last = fields - 1;
        if (_strSrc[i] == _c) {
            if (!between && last < _n && _pistrLen) _pistrLen[last] = i - start;
            between = true;
        } else if (between) {
            between = false;
            start = i;
            if (fields <= _n && _strDes) _strDes[fields] = _strSrc + i;
            if (fields <= _n && _pistrLen) _pistrLen[fields] = _iLen - i;
            ++fields;
        }
    }
    return fields;
}

int check_string(char* _string)
{
    if (!_string || !*_string) return 0;
    if (strchr(_string, '_')) return 1;
    for (; *_string; ++_string)
        if (!isalnum(static_cast<unsigned char>(*_string))) return 0;
    return 1;
}

void to_base64(unsigned char* out, const unsigned char* in, int len)
{
    static const char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (!out) return;

    for (int left = in ? len : 0; left > 0; left -= 3, in += 3) {
        const unsigned int second = left > 1 ? in[1] : 0;
        const unsigned int third = left > 2 ? in[2] : 0;
        const unsigned int group = static_cast<unsigned int>(in[0]) << 16 | second << 8 | third;
        *out++ = static_cast<unsigned char>(DIGITS[group >> 18]);
        *out++ = static_cast<unsigned char>(DIGITS[group >> 12 & 63]);
        *out++ = static_cast<unsigned char>(left > 1 ? DIGITS[group >> 6 & 63] : '=');
        *out++ = static_cast<unsigned char>(left > 2 ? DIGITS[group & 63] : '=');
    }
    *out = 0;
}
