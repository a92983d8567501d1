/*
 * AES.h: the AES block cipher (FIPS-197) and the counter mode in which SDV frames are enciphered.
 *
 * The cipher's tables are built from first principles at the first set_key() and only read afterwards; that
 * first use is safe when several threads come to it at once. Every call works on the caller's memory alone.
 */
#ifndef QUORLIN_AES_H
#define QUORLIN_AES_H

#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Key schedule. A word holds one column of the state, the byte of row 0 in the low-order position. */
typedef struct STR_AES
{
    uint32_t k_len;     /* key length in 32-bit words: 4, 6 or 8 */
    uint32_t e_key[64]; /* round keys for encrypt() */
    uint32_t d_key[64]; /* round keys for decrypt() */
} STR_AES;

/** Build the cipher's tables. set_key() does it when it has not been done; a further call changes nothing. */
QUORLIN_API void gen_tabs(void);

/**
 * Expand a key into pStrAES.
 *
 * @param in_key  key_len / 8 bytes
 * @param key_len key length in bits: 128, 192 or 256; with any other value the schedule is left as it was
 */
QUORLIN_API void set_key(STR_AES* pStrAES, const unsigned char* in_key, const unsigned long key_len);

/** Decipher the 16 bytes at in_blk into out_blk, which may be the same place. */
QUORLIN_API void decrypt(STR_AES* pStrAES, const unsigned char* in_blk, unsigned char* out_blk);

/**
 * Make a 16-byte AES key of a shorter one: the key's bytes, then bytes 0xFF, then a zero byte behind them.
 *
 * @param ucSrcPwd key of _iSrcLen bytes, 0 to 16
 * @param ucDstPwd receives 17 bytes
 * @return 0; -1 when the key is longer than 16 bytes or a pointer is missing (ucDstPwd is then untouched)
 */
QUORLIN_API int expand_key(unsigned char* ucSrcPwd, int _iSrcLen, unsigned char* ucDstPwd);

/**
 * Encipher or decipher data in place: both are the same exclusive-or.
 *
 * The counter block is _iCTRKey, least significant byte first, and twelve zero bytes. It is enciphered once
 * and the 16 bytes that result serve every 16 bytes of the data: the counter does not advance.
 *
 * @param _pcVData    _iDataLen writable bytes; nothing happens when it is NULL or _iDataLen is 0 or less
 * @param _iCTRKey    counter value; the frame number where SDV frames are concerned
 * @param _pucAESKey  key of _iAESKeyLen bytes, completed by expand_key(). The data stay as they are when the
 *                    key is longer than 16 bytes.
 * @return 0 in every case
 */
QUORLIN_API int video_AES_CTR(unsigned char* _pcVData, int _iDataLen, unsigned int _iCTRKey,
                              unsigned char* _pucAESKey, int _iAESKeyLen);

#ifdef __cplusplus
}
#endif

#endif

/*
 * Some C libraries declare an encrypt() of their own in <unistd.h>. Ours is declared for those who include
 * this header, and not for those who get it by way of Quorlin.h.
 */
#if !defined(QUORLIN_AES_ENCRYPT) && !defined(QUORLIN_AES_WITHOUT_ENCRYPT)
#define QUORLIN_AES_ENCRYPT

#ifdef __cplusplus
extern "C" {
#endif

/** Encipher the 16 bytes at in_blk into out_blk, which may be the same place. */
QUORLIN_API void encrypt(STR_AES* pStrAES, const unsigned char* in_blk, unsigned char* out_blk);

#ifdef __cplusplus
}
#endif

#endif
