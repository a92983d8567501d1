#include "common_fun.h"

#include <string.h>

void itoa(unsigned int value, char* string, int)
{
    if (!string) return;

    char digits[10];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    while (count) *string++ = digits[--count];
    *string = 0;
}

int decimal2binary(unsigned long long decimal, int* binary)
{
    if (!binary) return -2;

    int count = 0;
    for (; decimal; decimal >>= 1) binary[count++] = static_cast<int>(decimal & 1);
    return count;
}

unsigned long long binary2decimal(int nbits, int* binary)
{
    if (!binary) return ~0ull;

    unsigned long long sum = 0;
    for (int i = 0; i < nbits && i < 64; ++i) sum += static_cast<unsigned long long>(binary[i]) << i;
    return sum;
}

static int words_for(int nbits)
{
    return nbits <= 0 ? 0 : nbits / 32 + (nbits % 32 != 0);
}

int decimal2binaryEx(unsigned int* decimal, int* binary, int nbits)
{
    if (!binary || !decimal) return -2;

    const int words = words_for(nbits);
    if (words > 4) return -3;
    for (int i = 0; i < words; ++i) decimal2binary(decimal[i], binary + i * 32);
    return 0;
}

int Netbinary2decimalEx(int nbits, int* binary, unsigned int* decimal)
{
    const int words = words_for(nbits);
    if (words > 5 || !binary || !decimal) return -1;

    for (int i = 0; i < words; ++i)
        for (int j = 0; j < 32; ++j) decimal[i] += static_cast<unsigned int>(binary[i * 32 + j] & 1) << j;
    return 0;
}

int binary2decimalEx(int nbits, int* binary, unsigned int* decimal)
{
    const int words = words_for(nbits);
    if (words > 5 || !binary || !decimal) return -1;

    for (int i = 0; i < words; ++i)
        for (int j = 0; j < 32; ++j) decimal[i] += static_cast<unsigned int>(binary[j] >> i & 1) << j;
    return 0;
}

int pow1(int a, int _iMax)
{
    if (a < 0 || _iMax < 0) return 0;

    unsigned int result = 1;
    unsigned int square = static_cast<unsigned int>(a);
    for (; _iMax; _iMax >>= 1, square *= square)
        if (_iMax & 1) result *= square;
    return static_cast<int>(result);
}

unsigned short cal_chksum(unsigned short* addr, int len)
{
    const unsigned char* at = reinterpret_cast<const unsigned char*>(addr);
    uint32_t sum = 0;
    for (int left = at ? len : 0; left > 0; left -= 2, at += 2) {
        uint16_t word = 0;
        memcpy(&word, at, left > 1 ? 2 : 1);
        sum += word;
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<unsigned short>(~sum);
}
