/*
 * common_fun.h: small independent helpers: numbers and addresses as text, splitting, bit arrays, Base64,
 * a checksum, clocks that can be frozen, a random port.
 *
 * Texts are zero-terminated, buffers the caller's; nothing is allocated and nothing is reported. Any thread
 * may call, with its own buffers; the two frozen clocks are shared by the process.
 *
 * A NULL argument is answered as its entry says; where an entry says nothing, a function with a result gives
 * -1, one without does nothing, and no other argument is touched.
 */
#ifndef QUORLIN_COMMON_FUN_H
#define QUORLIN_COMMON_FUN_H

#include <time.h>

#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------------------
 * Numbers and addresses as text
 */

/** Write value in decimal, whatever radix says: at most 10 digits and a terminator. */
QUORLIN_API void itoa(unsigned int value, char* string, int radix);

/**
 * Write the four bytes of the number as "a.b.c.d", the lowest byte first: an address in network order, as a
 * socket address holds it, comes out in its usual form. Returns 0.
 *
 * @param cIpAddress 16 bytes, zeroed first
 */
QUORLIN_API int IPAddressU32ToChar(unsigned int _u32IPAddress, char* cIpAddress);

/**
 * The number with a in its highest byte, from the text "a.b.c.d". Not the inverse of IPAddressU32ToChar():
 * the order is the host's. Numbers are taken as they are (a sign is allowed, and what an int cannot hold
 * becomes its nearest value), shifted and added; missing ones count as 0. NULL gives 0.
 */
QUORLIN_API unsigned int ipstring2u32(char* _ip);

/**
 * Is the text an IPv4 address of exactly four numbers? What follows the fourth is ignored unless it is "."
 * and a number.
 *
 * @return 1 for an address whose first number is 1 to 255; 2 when that is 224 to 239 (multicast); 3 for
 *         0.0.0.0; -1 for anything else
 */
QUORLIN_API int IsValidIP(const char* _cIP);

/**
 * Rewrite a dotted address in place without leading zeros and without what follows the digits of a part:
 * "192.168.001.010" becomes "192.168.1.10". Parts behind the fourth are dropped; of a part only the first 16
 * characters count, and nothing behind such a part. Numbers above 2147483647 become that. The text never
 * grows.
 *
 * @return 1; 0 with the text unchanged when one of four parts does not begin with a digit, or for NULL
 */
QUORLIN_API int ChangeIpAddr(char* _strIp);

/** "00:11:22:33:44:55" becomes "55:44:33:22:11:00". Any text without exactly this form is left alone. */
QUORLIN_API void ReverseMAC(char* _cMac);

/**
 * Address and netmask of a network device, as dotted text.
 *
 * @param szIPAddr  16 bytes; NULL when not wanted
 * @param szNetMask 16 bytes; NULL when not wanted
 * @param _cDevName such as "eth0"; at most 15 characters are used
 * @return 0; -1 when no socket could be opened or a query failed. The netmask is not asked for after the
 *         address could not be had.
 */
QUORLIN_API int get_local_address(char* szIPAddr, char* szNetMask, char* _cDevName);

/* ---------------------------------------------------------------------------------------------------------
 * Splitting. An empty separator occurs nowhere.
 */

/** Copy to c3 what stands in c1 before the first c2, "" when there is none. c3 may be c1. Returns 0. */
QUORLIN_API int OnCharLeft(const char* c1, const char* c2, char* c3);

/** Copy to c3 what stands in c1 behind the first c2, "" when there is none. c3 may be c1. Returns 0. */
QUORLIN_API int OnCharRight(const char* c1, const char* c2, char* c3);

/**
 * Split at every cSplitChar. Only what a separator follows is a field: the text behind the last separator
 * comes as an empty one, "a,b,c" as "a", "b", "". The source is used up and ends empty.
 *
 * @param cDest as many buffers as there are fields, each large enough
 * @return number of fields, 0 for an empty source
 */
QUORLIN_API int SplitStringToArray(char* cSource, char* cSplitChar, char** cDest);

/**
 * As SplitStringToArray(), but it ends with -1 as soon as len fields are stored, so that at most len - 1 are
 * returned as a success. What is left of the source is then behind the last field stored.
 *
 * @param cDest len buffers; len of 0 or less stores nothing
 */
QUORLIN_API int SplitStringToArrayEx(char* cSource, char* cSplitChar, char** cDest, int len);

/**
 * Split at the character _pcSplit[0] into fields of at most _iFieldLen - 1 characters. No terminators are
 * written: pass zeroed fields. What was written before a failure stays.
 *
 * @param _ppcDst _iFieldNum fields of _iFieldLen bytes
 * @return number of fields, 1 for an empty source; -1 for NULL, also as a field that is needed; -2 when a
 *         field took _iFieldLen characters; -3 when there are more than _iFieldNum fields
 */
QUORLIN_API int SplitString(unsigned char* _pcSrc, unsigned char* _pcSplit, unsigned char** _ppcDst,
                            int _iFieldLen, int _iFieldNum);

/**
 * Split str in place: array[0] is str, each delim found ends a token with a zero, and the next begins one
 * character later (the rest of a longer delim stays in front of it).
 *
 * @param array kwSect + 1 pointers; array[kwSect] gets the rest, unsplit, when kwSect delimiters were found
 * @return number of tokens, at most kwSect; -1 with nothing touched when kwSect is below 1
 */
QUORLIN_API int strtoken_r(char* str, char* delim, char** array, int kwSect);

/**
 * Find the fields of the first _iLen bytes (zero bytes are nothing special): runs of bytes other than _c.
 * For the fields 0 to _n their starts go to _strDes and their lengths to _pistrLen; field _n and the last
 * field, unless a _c ends it, get the length up to the end of the bytes.
 *
 * @param _strDes, _pistrLen _n + 1 entries each; NULL when not wanted
 * @return number of fields, also those behind _n; -1 when _strSrc is NULL or _iLen is 0 or less
 */
QUORLIN_API int kt_strnchr(char* _strSrc, int _iLen, char _c, char** _strDes, int* _pistrLen, int _n);

/** 1 when the text has an underscore anywhere, or letters and digits only; 0 otherwise, for "" and NULL. */
QUORLIN_API int check_string(char* _string);

/* ---------------------------------------------------------------------------------------------------------
 * Bit arrays and powers. A bit array has one bit, 0 or 1, in each int, the least significant first. Counts of
 * bits below 0 count as 0.
 */

/** Write the bits up to the highest one set, at most 64. Returns how many (0 for 0); -2 for NULL. */
QUORLIN_API int decimal2binary(unsigned long long decimal, int* binary);

/** The number that nbits bits (at most 64; more are ignored) make. All bits set for NULL. */
QUORLIN_API unsigned long long binary2decimal(int nbits, int* binary);

/**
 * Write the bits of nbits / 32 words, rounded up, each word's at binary[32 * word] and up to its highest bit
 * set. The other entries stay: pass a zeroed array of 32 entries a word.
 *
 * @param decimal 4 words
 * @return 0; -2 for NULL; -3 when there are more than 4 words
 */
QUORLIN_API int decimal2binaryEx(unsigned int* decimal, int* binary, int nbits);

/**
 * The way back: add to each of nbits / 32 words, rounded up, what its 32 entries of binary make (their lowest
 * bit counts). Pass zeroed words.
 *
 * @return 0; -1 when there are more than 5 words
 */
QUORLIN_API int Netbinary2decimalEx(int nbits, int* binary, unsigned int* decimal);

/**
 * The same from a transposed array of 32 entries: bit i of entry j is added as bit j of word i.
 *
 * @return 0; -1 when there are more than 5 words
 */
QUORLIN_API int binary2decimalEx(int nbits, int* binary, unsigned int* decimal);

/** a to the power _iMax, wrapping in 32 bits; 1 when _iMax is 0; 0 when either is negative. */
QUORLIN_API int pow1(int a, int _iMax);

/* ---------------------------------------------------------------------------------------------------------
 * Encodings
 */

/**
 * Base64 with padding and without line breaks, zero-terminated.
 *
 * @param out 4 * ceil(len / 3) + 1 bytes; the empty text when len is 0 or less or in is NULL
 */
QUORLIN_API void to_base64(unsigned char* out, const unsigned char* in, int len);

/**
 * The Internet checksum of len bytes at any address: the complement of the folded sum of the 16-bit words as
 * they lie in memory. An odd last byte is followed by a 0. No bytes, and NULL, give 65535.
 */
QUORLIN_API unsigned short cal_chksum(unsigned short* addr, int len);

/* ---------------------------------------------------------------------------------------------------------
 * Clocks and a random port. A frozen clock stays frozen; setting it again freezes the value of that moment.
 */

/** The frozen time, or the current one when none is frozen; also stored in *_T unless that is NULL. */
QUORLIN_API time_t getmytime(time_t* _T);

/** Freeze the current time. The argument is not used. */
QUORLIN_API void setmytime(unsigned long _uLTm);

/** Freeze the current uptime. The argument is not used. */
QUORLIN_API void set_uptime(unsigned long _msec);

/** The frozen uptime, or the current one when none is frozen, in whole seconds. *_msec is not touched. */
QUORLIN_API int get_uptime(int* _msec);

/**
 * Milliseconds of the clock that counts process times, plus 300000. Its count of ticks is cut to 32 bits with
 * a sign, so the result jumps back when that wraps. -1 when the length of a tick is not known.
 */
QUORLIN_API long long get_uptime_ms(void);

/**
 * A port number of 16 random bits, raised by miniseed when it is below that (modulo 65536, so above 32768
 * the result can be small). It seeds rand() anew with the second and the thread: calls of one thread within
 * a second return the same port.
 */
QUORLIN_API unsigned short GetRandomPort(unsigned short miniseed);

#ifdef __cplusplus
}
#endif

#endif
