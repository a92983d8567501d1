#include <algorithm>
#include <cstring>

#include "support.h"

struct Vector
{
    std::string key, plain, cipher;
};

// The examples of the cipher's standard.
static const Vector vectors[] = {
    {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
     "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
     "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "00112233445566778899aabbccddeeff",
     "8ea2b7ca516745bfeafc49904b496089"},
    {"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734",
     "3925841d02dc09fbdc118597196a0b32"},
};

// Named so that the runner takes it before any other test has built the tables.
TEST(CipherFirstUseDeathTest, TwoThreadsAtOnce)
{
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(in_child([] {
                      Bytes out[2] = {Bytes(16), Bytes(16)};
                      two_at_once([&](int who) {
                          STR_AES schedule;
                          set_key(&schedule, hex(vectors[0].key).data(), 128);
                          encrypt(&schedule, hex(vectors[0].plain).data(), out[who].data());
                      });
                      return out[0] == hex(vectors[0].cipher) && out[1] == out[0] ? 0 : 1;
                  }),
                  0);
    }
}

TEST(Cipher, StandardExamplesBothWays)
{
    for (const Vector& row : vectors) {
        STR_AES schedule = {};
        Bytes block = hex(row.plain);
        set_key(&schedule, hex(row.key).data(), static_cast<unsigned long>(row.key.size() * 4));
        EXPECT_EQ(schedule.k_len, row.key.size() / 8);
        encrypt(&schedule, block.data(), block.data());
        EXPECT_EQ(block, hex(row.cipher));
        decrypt(&schedule, block.data(), block.data());
        EXPECT_EQ(block, hex(row.plain));
        const STR_AES before = schedule;
        set_key(&schedule, hex(row.key).data(), 100);
        EXPECT_EQ(memcmp(&before, &schedule, sizeof(before)), 0) << "no such key length";
    }
}

TEST(Cipher, KeysAreCompletedTo16Bytes)
{
    unsigned char key[17] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
    for (const int length : {0, 1, 5, 15, 16, 17}) {
        Bytes out(18, 0xEE);
        EXPECT_EQ(expand_key(key, length, out.data()), length > 16 ? -1 : 0);
        Bytes want(18, 0xEE);
        if (length <= 16) {
            std::fill_n(std::copy_n(key, length, want.begin()), 16 - length, uint8_t(0xFF));
            want[16] = 0;
        }
        EXPECT_EQ(out, want);
    }
}

TEST(Cipher, CounterModeUsesOneBlock)
{
    // Key, counter, and the block that openssl enciphers to: 02 01 00 ... for the counter 258.
    const std::tuple<std::string, unsigned int, std::string> rows[] = {
        {"0102030405", 258, "b54d2195f458f0a53e94ba5ad8cde651"},
        {"", 1, "2060b29484f017e238f2405b99001c01"},
        {"000102030405060708090a0b0c0d0e0f", 7, "0a54c3e6eae07eccf451bbcd991a30ec"},
    };
    for (const auto& [keyText, counter, stream] : rows) {
        Bytes key = hex(keyText);
        key.resize(key.size() + 1); // an empty key still has an address
        const int keyLength = int(key.size()) - 1;
        for (const size_t length : {0, 1, 15, 17, 64}) {
            const Bytes plain = noise(length + 1, counter);
            Bytes data = plain, want = plain;
            for (size_t i = 0; i < length; ++i) want[i] ^= hex(stream)[i % 16];
            EXPECT_EQ(video_AES_CTR(data.data(), int(length), counter, key.data(), keyLength), 0);
            EXPECT_EQ(data, want);
            EXPECT_EQ(video_AES_CTR(data.data(), -1, counter, key.data(), keyLength), 0);
            EXPECT_EQ(data, want);
        }
    }
    Bytes key(64, 1), data(64, 9);
    for (const int length : {17, 64}) EXPECT_EQ(video_AES_CTR(data.data(), 64, 1, key.data(), length), 0);
    EXPECT_EQ(data, Bytes(64, 9));
}

TEST(DecryptKey, IsKeptOrCleared)
{
    unsigned char key[100];
    memset(key, 0xAB, sizeof(key));
    const std::tuple<unsigned char*, int, int, int> rows[] = {
        {key, 16, 0, 16},     {key, 100, 0, 64}, {key, 5, 0, 5},  {key, 0, 0, 0},
        {nullptr, 16, -1, 0}, {key, 64, 0, 64},  {key, -1, -1, 0}};
    for (const auto& [bytes, length, result, kept] : rows) {
        EXPECT_EQ(SetDecryptKey(bytes, length), result);
        EXPECT_EQ(g_tSdv2Avi.m_bDecryptKeyReady, result == 0);
        EXPECT_EQ(g_tSdv2Avi.m_iDecryptKeyLen, kept);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(g_tSdv2Avi.m_ucDecryptKey[i], i < kept ? 0xAB : 0);
    }
}

struct Case
{
    const char* what;
    int keyLength; // -1: no key
    uint16_t mode, reserved;
    int payload; // -1: no buffer, -2: frame cut behind its first byte
    int result;
    size_t changed; // payload bytes deciphered
};

TEST(DecryptFrame, ResultsAndTouchedBytes)
{
    const Case rows[] = {
        {"whole", 16, 21, 2, 100, 0, 64},      {"other bits set", 16, 21, 6, 100, 0, 64},
        {"short key", 5, 21, 2, 100, 0, 64},   {"64 bytes", 16, 21, 2, 64, 0, 64},
        {"63 bytes", 16, 21, 2, 63, 0, 63},    {"4 bytes", 16, 21, 2, 4, 0, 4},
        {"3 bytes", 16, 21, 2, 3, -4, 3},      {"no payload", 16, 21, 2, 0, -4, 0},
        {"no key", -1, 21, 2, 100, -2, 0},     {"empty key", 0, 21, 2, 100, -2, 0},
        {"key of 17", 17, 21, 2, 100, -2, 0},  {"key of 64", 64, 21, 2, 100, -2, 0},
        {"other mode", 16, 31, 2, 100, -3, 0}, {"mode 41", 16, 41, 2, 100, -3, 0},
        {"marker 3", 16, 21, 3, 100, -3, 0},   {"marker 1", 16, 21, 1, 100, -3, 0},
        {"marker 0", 16, 21, 0, 100, -3, 0},   {"no buffer", 16, 21, 2, -1, -1, 0},
        {"no header", 16, 21, 2, -2, -1, 0},   {"no buffer, other mode", 16, 31, 2, -1, -3, 0},
    };
    Bytes key = hex("000102030405060708090a0b0c0d0e0f");
    key.resize(64);
    for (const Case& row : rows) {
        SCOPED_TRACE(row.what);
        sdv::FileFields file;
        file.mode = row.mode;
        Job job(file);
        SetDecryptKey(row.keyLength < 0 ? nullptr : key.data(), row.keyLength);
        const Bytes keyStream = row.keyLength == 5 ? Bytes() : hex("0a54c3e6eae07eccf451bbcd991a30ec");
        sdv::FrameFields fields = picture(7, size_t(std::max(row.payload, 0)), 0);
        fields.reserved = row.reserved;
        Bytes frame = sdv::frame(fields);
        if (row.keyLength == 5)
            sdv::encipher(frame, {key.data(), 5});
        else
            for (size_t i = 0; i < row.changed; ++i) frame[32 + i] ^= keyStream[i % 16];
        Bytes exact(frame); // its own allocation: a byte beyond is caught by the sanitizer
        if (row.payload == -1)
            EXPECT_EQ(CA_DecryptFrame(nullptr, 100, 7), row.result);
        else if (row.payload == -2)
            EXPECT_EQ(CA_DecryptFrame(Bytes(31, 0).data(), 31, 7), row.result);
        else {
            EXPECT_EQ(CA_DecryptFrame(exact.data(), int(exact.size()), 99), row.result);
            EXPECT_EQ(Bytes(exact.begin() + 32, exact.end()), fields.video);
            EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + 32, exact.begin()));
        }
        for (const int size : {0, -1})
            EXPECT_EQ(CA_DecryptFrame(frame.data(), size, 0), row.mode == 21 ? -1 : -3);
        SetDecryptKey(nullptr, 0);
    }
}

TEST(DecryptFrame, WrongKeyShows)
{
    Job job;
    Bytes frame = sdv::frame(picture(3, 100, 0)), key(16, 1);
    sdv::encipher(frame, key);
    key[0] = 2;
    SetDecryptKey(key.data(), 16);
    EXPECT_EQ(CA_DecryptFrame(frame.data(), int(frame.size()), 3), -4);
    SetDecryptKey(nullptr, 0);
}
