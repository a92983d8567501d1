#include "common_fun.h"

#include <arpa/inet.h>
#include <limits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Reads blanks, a sign and digits and moves text behind them. A number beyond an int becomes the nearest int:
// what the C library does with it depends on the width of long.
static bool read_number(const char*& text, int& number)
{
    const char* at = text;
    while (is_blank(*at)) ++at;
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') ++at;
    if (!is_digit(*at)) return false;

    const int64_t limit = negative ? -static_cast<int64_t>(INT_MIN) : INT_MAX;
    int64_t value = 0;
    for (; is_digit(*at); ++at) {
        value = value * 10 + (*at - '0');
        if (value > limit) value = limit;
    }
    number = static_cast<int>(negative ? -value : value);
    text = at;
    return true;
}

// Reads up to count numbers joined by points; returns how many.
static int read_dotted(const char* text, int* numbers, int count)
{
    for (int i = 0; i < count; ++i) {
        if (i > 0 && *text++ != '.') return i;
        if (!read_number(text, numbers[i])) return i;
    }
    return count;
}

int IPAddressU32ToChar(unsigned int _u32IPAddress, char* cIpAddress)
{
    if (!cIpAddress) return -1;

    memset(cIpAddress, 0, 16);
    char* at = cIpAddress;
    for (int shift = 0; shift < 32; shift += 8) {
        if (shift) *at++ = '.';
        itoa(_u32IPAddress >> shift & 0xFF, at, 10);
        at += strlen(at);
    }
    return 0;
}

unsigned int ipstring2u32(char* _ip)
{
    if (!_ip) return 0;

    int numbers[4] = {};
    read_dotted(_ip, numbers, 4);
    unsigned int address = 0;
    for (const int number : numbers) address = (address << 8) + static_cast<unsigned int>(number);
    return address;
}

int IsValidIP(const char* _cIP)
{
    if (!_cIP) return -1;

    int numbers[5] = {};
    if (read_dotted(_cIP, numbers, 5) != 4) return -1;
    for (int i = 0; i < 4; ++i)
        if (numbers[i] < 0 || numbers[i] > 255) return -1;
    if (numbers[0] >= 224 && numbers[0] <= 239) return 2;
    if (numbers[0] > 0) return 1;
    return numbers[1] || numbers[2] || numbers[3] ? -1 : 3;
}

int ChangeIpAddr(char* _strIp)
{
    if (!_strIp) return 0;

    unsigned char fields[4][17] = {};
    unsigned char* starts[4] = {fields[0], fields[1], fields[2], fields[3]};
    unsigned char point[] = ".";
    SplitString(reinterpret_cast<unsigned char*>(_strIp), point, starts, 16, 4);

    int numbers[4] = {};
    for (int i = 0; i < 4; ++i) {
        const char* text = reinterpret_cast<const char*>(fields[i]);
        if (!is_digit(*text)) return 0;
        read_number(text, numbers[i]);
    }
    // No number has more digits than were read for it, so neither has the whole.
    char out[64];
    const int length =
        snprintf(out, sizeof(out), "%d.%d.%d.%d", numbers[0], numbers[1], numbers[2], numbers[3]);
    memcpy(_strIp, out, static_cast<size_t>(length) + 1);
    return 1;
}

void ReverseMAC(char* _cMac)
{
    if (!_cMac || strnlen(_cMac, 18) != 17) return;
    for (int i = 0; i < 17; ++i)
        if ((_cMac[i] == ':') != (i % 3 == 2)) return;

    char reversed[17];
    memcpy(reversed, _cMac, 17);
    for (int i = 0; i < 17; i += 3) memcpy(_cMac + i, reversed + 15 - i, 2);
}

// Runs one query of the device's addresses and writes the answer as text.
static bool query_address(int fd, unsigned long query, const char* device, char* text)
{
    struct ifreq request = {};
    strncpy(request.ifr_name, device, sizeof(request.ifr_name) - 1);
    if (ioctl(fd, query, &request) < 0) return false;

    struct sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof(address));
    return inet_ntop(AF_INET, &address.sin_addr, text, 16);
}

int get_local_address(char* szIPAddr, char* szNetMask, char* _cDevName)
{
    if (!_cDevName) return -1;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;

    const bool done = (!szIPAddr || query_address(fd, SIOCGIFADDR, _cDevName, szIPAddr)) &&
                      (!szNetMask || query_address(fd, SIOCGIFNETMASK, _cDevName, szNetMask));
    close(fd);
    return done ? 0 : -1;
}
