#include "AES.h"

#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <bit>

static uint8_t pow_tab[256];
static uint8_t log_tab[256];
static uint8_t sbx_tab[256];
static uint8_t isb_tab[256];
static uint8_t rco_tab[10];
static uint32_t ft_tab[4][256];
static uint32_t fl_tab[4][256];
static uint32_t it_tab[4][256];
static uint32_t il_tab[4][256];
static std::atomic<int> tab_gen;

// ---- tables

static uint8_t times_two(uint8_t a)
{
    return static_cast<uint8_t>((a << 1) ^ (a & 0x80 ? 0x1B : 0));
}

// Powers and logarithms to the generator 3, in GF(2^8) with the polynomial 0x11B.
static void fill_powers()
{
    uint8_t power = 1;
    for (int exponent = 0; exponent < 255; ++exponent) {
        pow_tab[exponent] = power;
        log_tab[power] = static_cast<uint8_t>(exponent);
        power = static_cast<uint8_t>(power ^ times_two(power));
    }
    pow_tab[255] = pow_tab[0];
}

static uint8_t multiply(uint8_t a, uint8_t b)
{
    return a && b ? pow_tab[(log_tab[a] + log_tab[b]) % 255] : 0;
}

static void fill_boxes()
{
    for (int i = 0; i < 256; ++i) {
        const uint8_t inverse = i ? pow_tab[255 - log_tab[i]] : 0;
        const uint8_t box = static_cast<uint8_t>(inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                                 std::rotl(inverse, 3) ^ std::rotl(inverse, 4) ^ 0x63);
        sbx_tab[i] = box;
        isb_tab[box] = static_cast<uint8_t>(i);
    }
}

static uint32_t column(uint8_t row0, uint8_t row1, uint8_t row2, uint8_t row3)
{
    return row0 | static_cast<uint32_t>(row1) << 8 | static_cast<uint32_t>(row2) << 16 |
           static_cast<uint32_t>(row3) << 24;
}

static void fill_rounds()
{
    for (int i = 0; i < 256; ++i) {
        const uint8_t s = sbx_tab[i];
        const uint8_t v = isb_tab[i];
        const uint32_t forward = column(multiply(s, 2), s, s, multiply(s, 3));
        const uint32_t inverse = column(multiply(v, 14), multiply(v, 9), multiply(v, 13), multiply(v, 11));
        for (int row = 0; row < 4; ++row) {
            ft_tab[row][i] = std::rotl(forward, 8 * row);
            it_tab[row][i] = std::rotl(inverse, 8 * row);
            fl_tab[row][i] = static_cast<uint32_t>(s) << (8 * row);
            il_tab[row][i] = static_cast<uint32_t>(v) << (8 * row);
        }
    }
    uint8_t constant = 1;
    for (uint8_t& entry : rco_tab) {
        entry = constant;
        constant = times_two(constant);
    }
}

void gen_tabs(void)
{
    static pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&s_lock);
    if (!tab_gen.load(std::memory_order_relaxed)) {
        fill_powers();
        fill_boxes();
        fill_rounds();
        tab_gen.store(1, std::memory_order_release);
    }
    pthread_mutex_unlock(&s_lock);
}

// ---- key schedule

static uint8_t byte_of(uint32_t word, int row)
{
    return static_cast<uint8_t>(word >> (8 * row));
}

static uint32_t substitute(uint32_t word)
{
    return fl_tab[0][byte_of(word, 0)] | fl_tab[1][byte_of(word, 1)] | fl_tab[2][byte_of(word, 2)] |
           fl_tab[3][byte_of(word, 3)];
}

// InvMixColumns of one column: the inverse round tables undo the substitution first, so it is put back here.
static uint32_t unmix(uint32_t word)
{
    return it_tab[0][sbx_tab[byte_of(word, 0)]] ^ it_tab[1][sbx_tab[byte_of(word, 1)]] ^
           it_tab[2][sbx_tab[byte_of(word, 2)]] ^ it_tab[3][sbx_tab[byte_of(word, 3)]];
}

static uint32_t rounds_of(const STR_AES* pStrAES)
{
    return pStrAES->k_len + 6;
}

static void expand_forward(STR_AES* pStrAES)
{
    const uint32_t k_len = pStrAES->k_len;
    uint32_t* key = pStrAES->e_key;
    for (uint32_t i = k_len; i < 4 * (rounds_of(pStrAES) + 1); ++i) {
        uint32_t word = key[i - 1];
        if (i % k_len == 0)
            word = substitute(std::rotr(word, 8)) ^ rco_tab[i / k_len - 1];
        else if (k_len > 6 && i % k_len == 4)
            word = substitute(word);
        key[i] = key[i - k_len] ^ word;
    }
}

// Round keys in the order in which decrypt() uses them.
static void expand_inverse(STR_AES* pStrAES)
{
    const uint32_t rounds = rounds_of(pStrAES);
    for (uint32_t round = 0; round <= rounds; ++round) {
        const uint32_t* from = pStrAES->e_key + 4 * (rounds - round);
        const bool outer = round == 0 || round == rounds;
        for (int i = 0; i < 4; ++i) pStrAES->d_key[4 * round + i] = outer ? from[i] : unmix(from[i]);
    }
}

void set_key(STR_AES* pStrAES, const unsigned char* in_key, const unsigned long key_len)
{
    if (!pStrAES || !in_key || (key_len != 128 && key_len != 192 && key_len != 256)) return;

    if (!tab_gen.load(std::memory_order_acquire)) gen_tabs();
    pStrAES->k_len = static_cast<uint32_t>((key_len + 31) / 32);
    memcpy(pStrAES->e_key, in_key, 4 * pStrAES->k_len);
    expand_forward(pStrAES);
    expand_inverse(pStrAES);
}

// ---- cipher

using Tables = const uint32_t[4][256];

// One round: step is 1 for the cipher, whose rows shift left, and 3 for its inverse, whose rows shift right.
static void apply_round(Tables& tables, int step, const uint32_t* round_key, uint32_t state[4])
{
    uint32_t next[4];
    for (int i = 0; i < 4; ++i) {
        next[i] = round_key[i];
        for (int row = 0; row < 4; ++row) next[i] ^= tables[row][byte_of(state[(i + row * step) % 4], row)];
    }
    memcpy(state, next, sizeof(next));
}

static void run_cipher(const STR_AES* pStrAES, const uint32_t* key, Tables& inner, Tables& last, int step,
                       const unsigned char* in_blk, unsigned char* out_blk)
{
    uint32_t state[4];
    memcpy(state, in_blk, sizeof(state));
    for (int i = 0; i < 4; ++i) state[i] ^= key[i];

    const uint32_t rounds = rounds_of(pStrAES);
    for (uint32_t round = 1; round < rounds; ++round) apply_round(inner, step, key + 4 * round, state);
    apply_round(last, step, key + 4 * rounds, state);
    memcpy(out_blk, state, sizeof(state));
}

static bool is_expanded(const STR_AES* pStrAES)
{
    return pStrAES && (pStrAES->k_len == 4 || pStrAES->k_len == 6 || pStrAES->k_len == 8);
}

void encrypt(STR_AES* pStrAES, const unsigned char* in_blk, unsigned char* out_blk)
{
    if (!is_expanded(pStrAES) || !in_blk || !out_blk) return;
    run_cipher(pStrAES, pStrAES->e_key, ft_tab, fl_tab, 1, in_blk, out_blk);
}

void decrypt(STR_AES* pStrAES, const unsigned char* in_blk, unsigned char* out_blk)
{
    if (!is_expanded(pStrAES) || !in_blk || !out_blk) return;
    run_cipher(pStrAES, pStrAES->d_key, it_tab, il_tab, 3, in_blk, out_blk);
}

// ---- counter mode

int expand_key(unsigned char* ucSrcPwd, int _iSrcLen, unsigned char* ucDstPwd)
{
    if (_iSrcLen > 16 || !ucDstPwd || (!ucSrcPwd && _iSrcLen > 0)) return -1;

    const size_t len = static_cast<size_t>(std::max(_iSrcLen, 0));
    if (len) memmove(ucDstPwd, ucSrcPwd, len);
    memset(ucDstPwd + len, 0xFF, 16 - len);
    ucDstPwd[16] = 0;
    return 0;
}

int video_AES_CTR(unsigned char* _pcVData, int _iDataLen, unsigned int _iCTRKey, unsigned char* _pucAESKey,
                  int _iAESKeyLen)
{
    unsigned char key[17] = {};
    if (!_pcVData || expand_key(_pucAESKey, _iAESKeyLen, key) != 0) return 0;

    const uint32_t counter[4] = {_iCTRKey, 0, 0, 0};
    unsigned char stream[16];
    STR_AES schedule = {};
    set_key(&schedule, key, 128);
    memcpy(stream, counter, sizeof(stream));
    encrypt(&schedule, stream, stream);
    for (int i = 0; i < _iDataLen; ++i) _pcVData[i] ^= stream[i % 16];

    explicit_bzero(key, sizeof(key));
    explicit_bzero(&schedule, sizeof(schedule));
    return 0;
}
