#include <arpa/inet.h>
#include <string.h>

#include <memory>

#include "common_fun.h"
#include "support.h"

using Texts = std::vector<std::string>;

// A text with nothing readable behind its terminator, so that a step too far is seen.
struct Exact
{
    std::unique_ptr<char[]> bytes;
    Exact(const std::string& from) : bytes(strcpy(new char[from.size() + 1], from.c_str())) {}
    operator char*() const { return bytes.get(); }
};

// Zeroed fields of 16 bytes each.
struct Fields
{
    char bytes[6][16] = {};
    char* at[6] = {bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]};
    Texts texts(size_t count) const { return Texts(at, at + count); }
};

TEST(Addresses, AsNumbers)
{
    char out[17] = "################";
    IPAddressU32ToChar(0xFFFFFFFF, out);
    EXPECT_STREQ(out, "255.255.255.255");
    IPAddressU32ToChar(0x0201A8C0, out);
    EXPECT_STREQ(out, "192.168.1.2");
    itoa(4294967295u, out, 2);
    EXPECT_STREQ(out, "4294967295");

    const std::pair<const char*, unsigned> numbers[] = {
        {"192.168.1.2", 0xC0A80102u}, {"1.2", 0x01020000u},      {"x", 0u},
        {" 1. 2.+3.4", 0x01020304u},  {"0.0.0.-1", 0xFFFFFFFFu}, {"0.0.256.4294967297", 0x8000FFFFu},
    };
    for (const auto& [ip, number] : numbers) EXPECT_EQ(ipstring2u32(Exact(ip)), number) << ip;

    const std::pair<int, Texts> valid[] = {
        {1, {"1.0.0.0", "255.255.255.255", "223.1.1.1", "240.1.1.1", "1.2.3.4.", "1.2.3.4.x"}},
        {2, {"224.0.0.1", "239.9.9.9"}},
        {3, {"0.0.0.0", "0.0.0.0x"}},
        {-1, {"0.1.2.3", "256.1.1.1", "1.1.1.256", "1.-1.1.1", "1.2.3", "1..2.3", "", "1.2.3.4.5"}},
        {-1, {"4294967297.1.1.1", "18446744073709551617.1.1.1"}}, // 1.1.1.1 in 32 and in 64 bits
    };
    for (const auto& [kind, ips] : valid)
        for (const std::string& ip : ips) EXPECT_EQ(IsValidIP(Exact(ip)), kind) << ip;
}

TEST(Addresses, Rewritten)
{
    const auto rewritten = [](auto call, const char* from) {
        const Exact bytes(from);
        call(bytes);
        return std::string(bytes);
    };
    EXPECT_EQ(rewritten(ChangeIpAddr, "192.168.001.010"), "192.168.1.10");
    EXPECT_EQ(rewritten(ChangeIpAddr, "1a.2b.3.4 "), "1.2.3.4");
    EXPECT_EQ(rewritten(ChangeIpAddr, "1.2.3.00000000000000000007"), "1.2.3.0");
    EXPECT_EQ(rewritten(ChangeIpAddr, "1.2.3.2147483648"), "1.2.3.2147483647");
    for (const char* ip : {"192.168.1", "1.2.3. 4", "00000000000000000001.2.3.4", ""})
        EXPECT_EQ(rewritten(ChangeIpAddr, ip), ip);
    EXPECT_EQ(rewritten(ReverseMAC, "0a:1b:22:33:44:55"), "55:44:33:22:1b:0a");
    for (const char* mac : {"00:11:22:33:44:5", "00:11:22:33:44-55", "00:11:22:33:44:556", ""})
        EXPECT_EQ(rewritten(ReverseMAC, mac), mac);
    char mask[16], none[] = "no-such-device-of-a-long-name";
    EXPECT_EQ(get_local_address(nullptr, nullptr, none), 0);
    EXPECT_EQ(get_local_address(nullptr, mask, none), -1);
}

TEST(Splitting, AtAString)
{
    const struct
    {
        const char *source, *separator, *left, *right;
        Texts fields;
    } cases[] = {
        {"a,b,c", ",", "a", "b,c", {"a", "b", ""}},
        {"ab--c--", "--", "ab", "c--", {"ab", "c"}},
        {",,", ",", "", ",", {"", ""}},
        {"abc", "", "", "", {""}},
        {"", ",", "", "", {}},
    };
    for (const auto& c : cases) {
        const Exact source(c.source), again(c.source), separator(c.separator);
        char out[16] = "####";
        EXPECT_EQ(OnCharLeft(source, separator, out), 0);
        EXPECT_STREQ(out, c.left) << c.source;
        EXPECT_EQ(OnCharRight(source, separator, out), 0);
        EXPECT_STREQ(out, c.right) << c.source;
        const int count = static_cast<int>(c.fields.size());
        Fields fields, bounded;
        EXPECT_EQ(SplitStringToArray(source, separator, fields.at), count) << c.source;
        EXPECT_EQ(SplitStringToArrayEx(again, separator, bounded.at, count + 1), count) << c.source;
        EXPECT_EQ(fields.texts(c.fields.size()), c.fields);
        EXPECT_EQ(bounded.texts(c.fields.size()), c.fields);
    }
    Fields two;
    EXPECT_EQ(SplitStringToArrayEx(Exact("a,b,c,"), Exact(","), two.at, 2), -1);
    EXPECT_EQ(two.texts(3), (Texts{"a", "b", ""}));

    char list[] = "a,b,c";
    EXPECT_EQ(strtoken_r(list, Exact(""), two.at, 5), 1);
    EXPECT_EQ(strtoken_r(list, Exact(",b"), two.at, 5), 2); // the first character alone goes
    EXPECT_EQ(two.texts(2), (Texts{"a", "b,c"}));
    EXPECT_EQ(strtoken_r(two.at[1], Exact(","), two.at, 1), 1);
    EXPECT_EQ(two.texts(2), (Texts{"b", "c"}));
}

TEST(Splitting, AtACharacter)
{
    const struct
    {
        const char* source;
        int length, count, result;
        Texts fields;
    } cases[] = {
        {"a..c.", 16, 4, 4, {"a", "", "c", ""}},
        {"", 16, 4, 1, {""}},
        {"a.b.c.d.e", 16, 4, -3, {"a", "b", "c", "d", ""}},
        {"abcd.e", 4, 2, -2, {"abcd", ""}},
        {"abc.e", 4, 2, 2, {"abc", "e"}},
        {"a", 0, 1, -2, {""}},
    };
    unsigned char point[] = ".";
    for (const auto& c : cases) {
        Fields fields;
        const Exact source(c.source);
        EXPECT_EQ(SplitString(reinterpret_cast<unsigned char*>(source.bytes.get()), point,
                              reinterpret_cast<unsigned char**>(fields.at), c.length, c.count),
                  c.result);
        EXPECT_EQ(fields.texts(c.fields.size()), c.fields) << c.source;
    }

    const struct
    {
        const char* bytes;
        int n, result;
        Texts rests; // where each begins, to the end
        std::vector<int> lengths;
    } runs[] = {
        {",,ab,,c", 4, 2, {"ab,,c", "c"}, {2, 1, -1}},
        {"a,b,c,", 1, 3, {"a,b,c,", "b,c,"}, {1, 4, -1}},
        {"ab,", 0, 1, {"ab,"}, {3, -1}},
        {",,,", 0, 0, {}, {-1}},
    };
    for (const auto& c : runs) {
        const Exact bytes(c.bytes);
        const int size = static_cast<int>(strlen(c.bytes));
        char* at[5] = {};
        int lengths[5] = {-1, -1, -1, -1, -1};
        EXPECT_EQ(kt_strnchr(bytes, size, ',', at, lengths, c.n), c.result) << c.bytes;
        EXPECT_EQ(Texts(at, at + c.rests.size()), c.rests);
        EXPECT_EQ(std::vector<int>(lengths, lengths + c.lengths.size()), c.lengths) << c.bytes;
        EXPECT_EQ(at[c.rests.size()], nullptr);
    }
    for (const auto& [word, good] :
         {std::pair{"abc123", 1}, {"abc-1", 0}, {"a b_c", 1}, {"", 0}, {"\xE4", 0}})
        EXPECT_EQ(check_string(Exact(word)), good) << word;
}

TEST(Bits, ThereAndBack)
{
    int bits[160] = {};
    for (const unsigned long long number : {0ull, 5ull, 1ull << 63, ~0ull}) {
        memset(bits, 0, sizeof(bits));
        EXPECT_EQ(decimal2binary(number, bits), number ? 64 - __builtin_clzll(number) : 0);
        EXPECT_EQ(binary2decimal(64, bits), number);
    }
    EXPECT_EQ(binary2decimal(1 << 30, bits), ~0ull);

    memset(bits, 0, sizeof(bits));
    unsigned int words[4] = {0x80000001, 0, 0xDEADBEEF, 6}, back[5] = {}, across[5] = {};
    EXPECT_EQ(decimal2binaryEx(words, bits, 97), 0);
    EXPECT_EQ(Netbinary2decimalEx(160, bits, back), 0);
    EXPECT_EQ(memcmp(words, back, sizeof(words)), 0);
    EXPECT_EQ(Netbinary2decimalEx(1, bits, back), 0); // adds
    EXPECT_EQ(back[0], 2u);
    for (int j = 0; j < 32; ++j) bits[j] = j == 3 ? 0x12 : 0;
    EXPECT_EQ(binary2decimalEx(160, bits, across), 0);
    EXPECT_EQ(across[1] + across[4], 16u);
    EXPECT_EQ(decimal2binaryEx(words, bits, 129), -3);
    EXPECT_EQ(Netbinary2decimalEx(161, bits, back) + binary2decimalEx(161, bits, back), -2);

    for (const auto& [a, n, power] :
         {std::tuple{7, 0, 1}, {0, 3, 0}, {3, 21, 1870418611}, {2, 32, 0}, {-2, 2, 0}, {1, INT32_MAX, 1}})
        EXPECT_EQ(pow1(a, n), power) << a << "^" << n;
}

TEST(Encodings, Base64AndChecksum)
{
    for (const auto& [bytes, expected] :
         {std::pair{"Man", "TWFu"}, {"Ma", "TWE="}, {"M", "TQ=="}, {"", ""}, {"\xFB\xFF\xBF~", "+/+/fg=="}}) {
        unsigned char out[9];
        to_base64(out, reinterpret_cast<const unsigned char*>(bytes), static_cast<int>(strlen(bytes)));
        EXPECT_STREQ(reinterpret_cast<char*>(out), expected);
    }

    Bytes packet = hex("4500007300004000401100"
                       "00c0a80001c0a800c780ff"); // a published example
    auto* words = static_cast<unsigned short*>(static_cast<void*>(packet.data()));
    EXPECT_EQ(cal_chksum(words, 20), htons(0xB861));
    words[5] = htons(0xB861);
    EXPECT_EQ(cal_chksum(words, 20), 0);
    EXPECT_EQ(cal_chksum(words, 21), htons(0x7FFF)); // an odd byte is the first of its word
}

TEST(Clocks, FreezeAndRun)
{
    EXPECT_LE(std::abs(getmytime(nullptr) - time(nullptr)), 2);
    setmytime(12345);
    set_uptime(12345);
    const time_t frozen = getmytime(nullptr);
    const int uptime = get_uptime(nullptr);
    EXPECT_LE(std::abs(frozen - time(nullptr)), 2);
    const timespec more_than_a_second = {1, 100000000};
    nanosleep(&more_than_a_second, nullptr);
    time_t stored = 0;
    EXPECT_EQ(getmytime(&stored), frozen);
    EXPECT_EQ(stored, frozen);
    EXPECT_EQ(get_uptime(nullptr), uptime);
    EXPECT_GE(GetRandomPort(32768), 32768);
}
