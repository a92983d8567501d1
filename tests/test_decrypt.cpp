#include "AES.h"
#include "support.h"

// The examples of the cipher's standard: key and cipher text of one plain text.
static const Bytes plain = hex("00112233445566778899aabbccddeeff");
static const std::pair<Bytes, Bytes> examples[] = {
    {hex("000102030405060708090a0b0c0d0e0f"), hex("69c4e0d86a7b0430d8cdb78070b4c55a")},
    {hex("000102030405060708090a0b0c0d0e0f1011121314151617"), hex("dda97ca4864cdfe06eaf70a0ec0d7191")},
    {hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"),
     hex("8ea2b7ca516745bfeafc49904b496089")},
};

// Named so that the runner takes it before any other test has built the tables.
TEST(CipherFirstUseDeathTest, TwoThreadsAtOnce)
{
    const auto child = [&] {
        Bytes out[2] = {plain, plain};
        two_at_once([&](int who) {
            STR_AES schedule;
            set_key(&schedule, examples[0].first.data(), 128);
            encrypt(&schedule, out[who].data(), out[who].data());
        });
        return out[0] == examples[0].second && out[1] == out[0] ? 0 : 1;
    };
    for (int round = 0; round < 5; ++round) EXPECT_EQ(in_child(child), 0);
}

TEST(Cipher, StandardExamplesBothWays)
{
    for (const auto& [key, cipher] : examples) {
        STR_AES schedule = {};
        Bytes block = plain;
        set_key(&schedule, key.data(), static_cast<unsigned long>(key.size() * 8));
        set_key(&schedule, key.data(), 100); // no such length: without effect
        encrypt(&schedule, block.data(), block.data());
        EXPECT_EQ(block, cipher);
        decrypt(&schedule, block.data(), block.data());
        EXPECT_EQ(block, plain);
    }
}

TEST(Cipher, CounterModeUsesOneBlock)
{
    // Key, counter, and the block that openssl enciphers to: 02 01 00 ... for the counter 258.
    const std::tuple<Bytes, unsigned int, Bytes> rows[] = {
        {hex("0102030405"), 258, hex("b54d2195f458f0a53e94ba5ad8cde651")},
        {{}, 1, hex("2060b29484f017e238f2405b99001c01")},
        {hex("000102030405060708090a0b0c0d0e0f"), 7, hex("0a54c3e6eae07eccf451bbcd991a30ec")},
        {Bytes(17, 1), 7, Bytes(16, 0)}, // no such key: nothing happens
    };
    for (const auto& [bytes, counter, stream] : rows) {
        Bytes key = bytes + Bytes(1, 0xEE); // an empty key still has an address
        for (const int length : {-1, 0, 1, 15, 17, 64}) {
            Bytes data = noise(65, counter), want = data;
            for (int i = 0; i < length; ++i) want[size_t(i)] ^= stream[size_t(i) % 16];
            EXPECT_EQ(video_AES_CTR(data.data(), length, counter, key.data(), int(bytes.size())), 0);
            EXPECT_EQ(data, want);
        }
        const bool fits = bytes.size() <= 16;
        Bytes made(18, 0xEE);
        EXPECT_EQ(expand_key(key.data(), int(bytes.size()), made.data()), fits ? 0 : -1);
        EXPECT_EQ(made, fits ? bytes + Bytes(16 - bytes.size(), 0xFF) + hex("00ee") : Bytes(18, 0xEE));
    }
}

TEST(DecryptKey, IsKeptOrCleared)
{
    Bytes key(100, 0xAB);
    const std::tuple<unsigned char*, int, int, int> rows[] = {
        {key.data(), 100, 0, 64}, {key.data(), 5, 0, 5},   {key.data(), 0, 0, 0},  {key.data(), 64, 0, 64},
        {nullptr, 16, -1, 0},     {key.data(), 64, 0, 64}, {key.data(), -1, -1, 0}};
    for (const auto& [bytes, length, result, kept] : rows) {
        EXPECT_EQ(SetDecryptKey(bytes, length), result);
        EXPECT_EQ(g_tSdv2Avi.m_bDecryptKeyReady, result == 0);
        EXPECT_EQ(g_tSdv2Avi.m_iDecryptKeyLen, kept);
        for (int i = 0; i < 64; ++i) ASSERT_EQ(g_tSdv2Avi.m_ucDecryptKey[i], i < kept ? 0xAB : 0);
    }
}

TEST(DecryptFrame, ResultsAndTouchedBytes)
{
    // Length of the key (-1: none), mode, marker, payload; result, and payload bytes deciphered.
    const std::tuple<const char*, int, uint16_t, uint16_t, size_t, int, size_t> rows[] = {
        {"other bits set", 16, 21, 6, 100, 0, 64}, {"63 bytes", 16, 21, 2, 63, 0, 63},
        {"4 bytes", 16, 21, 2, 4, 0, 4},           {"3 bytes", 16, 21, 2, 3, -4, 3},
        {"no payload", 16, 21, 2, 0, -4, 0},       {"no key", -1, 21, 2, 100, -2, 0},
        {"empty key", 0, 21, 2, 100, -2, 0},       {"key of 17", 17, 21, 2, 100, -2, 0},
        {"other mode", 16, 41, 2, 100, -3, 0},     {"marker 3", 16, 21, 3, 100, -3, 0},
        {"marker 1", 16, 21, 1, 100, -3, 0},
    };
    Bytes key = hex("000102030405060708090a0b0c0d0e0f00");
    const Bytes keyStream = hex("0a54c3e6eae07eccf451bbcd991a30ec");
    for (const auto& [what, keyLength, mode, marker, payload, result, changed] : rows) {
        SCOPED_TRACE(what);
        Job job({.mode = mode});
        SetDecryptKey(keyLength < 0 ? nullptr : key.data(), keyLength);
        sdv::FrameFields fields = picture(7, payload, 0);
        fields.reserved = marker;
        const Bytes sound = sdv::frame(fields);
        Bytes frame = sound;
        for (size_t i = 0; i < changed; ++i) frame[32 + i] ^= keyStream[i % 16];
        frame.shrink_to_fit(); // a byte beyond is caught by the sanitizer
        EXPECT_EQ(CA_DecryptFrame(frame.data(), int(frame.size()), 99), result);
        EXPECT_EQ(frame, sound);
        for (const int size : {31, -1})
            EXPECT_EQ(CA_DecryptFrame(frame.data(), size, 0), mode == 21 ? -1 : -3);
        EXPECT_EQ(CA_DecryptFrame(nullptr, 100, 0), mode == 21 ? -1 : -3);
    }
    SetDecryptKey(nullptr, 0);
}
