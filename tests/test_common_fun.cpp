#include <arpa/inet.h>
#include <string.h>

#include <array>
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
    unsigned char* raw() const { return reinterpret_cast<unsigned char*>(bytes.get()); }
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
    char mask[16];
    EXPECT_EQ(get_local_address(nullptr, nullptr, text("no-such-device-of-a-long-name")), 0);
    EXPECT_EQ(get_local_address(nullptr, mask, text("no-such-device-of-a-long-name")), -1);
}

TEST(Addresses, Written)
{
    using Pairs = std::vector<std::pair<const char*, const char*>>; // before and after
    const std::pair<void (*)(char*), Pairs> rows[] = {
        {[](char* out) { IPAddressU32ToChar(0x0201A8C0, out); }, {{"###############", "192.168.1.2"}}},
        {[](char* out) { itoa(4294967295u, out, 2); }, {{"##########", "4294967295"}}},
        {[](char* ip) { ChangeIpAddr(ip); },
         {{"192.168.001.010", "192.168.1.10"},
          {"1a.2b.3.4 ", "1.2.3.4"},
          {"192.168.1", "192.168.1"},
          {"1.2.3.00000000000000000007", "1.2.3.0"},
          {"1.2.3.2147483648", "1.2.3.2147483647"},
          {"1.2.3. 4", "1.2.3. 4"},
          {"00000000000000000001.2.3.4", "00000000000000000001.2.3.4"}}},
        {ReverseMAC,
         {{"0a:1b:22:33:44:55", "55:44:33:22:1b:0a"},
          {"00:11:22:33:44:5", "00:11:22:33:44:5"},
          {"00:11:22:33:44-55", "00:11:22:33:44-55"},
          {"00:11:22:33:44:556", "00:11:22:33:44:556"}}},
    };
    for (const auto& [call, pairs] : rows)
        for (const auto& [before, after] : pairs) {
            const Exact written(before);
            call(written);
            EXPECT_STREQ(written, after);
        }
}

TEST(Splitting, AtAString)
{
    const std::tuple<const char*, const char*, Texts> cases[] = {
        {"a,b,c", ",", {"a", "b", ""}},
        {"ab--c--", "--", {"ab", "c"}},
        {",,", ",", {"", ""}},
        {"abc", "", {""}},
        {"", ",", {}},
    };
    for (const auto& [from, separator, wanted] : cases) {
        const Exact source(from), again(from), at(separator);
        const int count = static_cast<int>(wanted.size());
        Fields fields, bounded;
        EXPECT_EQ(SplitStringToArray(source, at, fields.at), count) << from;
        EXPECT_EQ(SplitStringToArrayEx(again, at, bounded.at, count + 1), count) << from;
        EXPECT_EQ(fields.texts(wanted.size()), wanted);
        EXPECT_EQ(bounded.texts(wanted.size()), wanted);
    }
    const std::array<const char*, 4> halves[] = {
        {"=b", "=", "", "b"}, {"a==b=", "==", "a", "b="}, {"ab", "=", "", ""}, {"ab", "", "", ""}};
    for (const auto& [from, separator, left, right] : halves) {
        const Exact before(from), behind(from); // in place
        OnCharLeft(before, Exact(separator), before);
        OnCharRight(behind, Exact(separator), behind);
        EXPECT_STREQ(before, left);
        EXPECT_STREQ(behind, right);
    }
    Fields two;
    EXPECT_EQ(SplitStringToArrayEx(Exact("a,b,c,"), Exact(","), two.at, 2), -1);
    EXPECT_EQ(SplitStringToArrayEx(Exact("c,"), Exact(","), two.at, 0), -1);
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
    } cases[] = {{"a..c.", 16, 4, 4, {"a", "", "c", ""}},
                 {"", 16, 4, 1, {""}},
                 {"abcd.e", 4, 2, -2, {"abcd", ""}},
                 {"abc.e", 4, 2, 2, {"abc", "e"}},
                 {"a.b.c.d.", 16, 4, -3, {"a", "b", "c", "d", ""}},
                 {"a", 16, 0, -3, {""}},
                 {"a", 0, 1, -2, {""}}};
    for (const auto& [source, length, count, result, wanted] : cases) {
        Fields fields;
        auto** at = reinterpret_cast<unsigned char**>(fields.at);
        EXPECT_EQ(SplitString(Exact(source).raw(), Exact(".").raw(), at, length, count), result) << source;
        EXPECT_EQ(fields.texts(wanted.size()), wanted) << source;
    }

    const std::tuple<const char*, int, int, Texts> runs[] = {{",,ab,,c", 4, 2, {"ab", "c"}},
                                                             {"a,b,c,", 1, 3, {"a", "b,c,"}},
                                                             {"ab,", 0, 1, {"ab,"}},
                                                             {",,,", 0, 0, {}}};
    for (const auto& [source, n, result, wanted] : runs) {
        const Exact bytes(source);
        char* at[6] = {};
        int lengths[6] = {};
        EXPECT_EQ(kt_strnchr(bytes, static_cast<int>(strlen(source)), ',', at, lengths, n), result) << source;
        Texts fields;
        for (int i = 0; at[i] || lengths[i]; ++i) fields.emplace_back(at[i], lengths[i]);
        EXPECT_EQ(fields, wanted) << source;
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
        EXPECT_EQ(binary2decimal(1 << 30, bits), number); // of which 64 count
    }

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
        const Exact out(std::string(strlen(expected), '#'));
        to_base64(out.raw(), Exact(bytes).raw(), static_cast<int>(strlen(bytes)));
        EXPECT_STREQ(out, expected);
    }

    Bytes packet = hex("4500007300004000401100"
                       "00c0a80001c0a800c780ff"); // a published example
    auto* words = static_cast<unsigned short*>(static_cast<void*>(packet.data()));
    EXPECT_EQ(cal_chksum(words, 20), htons(0xB861));
    words[5] = htons(0xB861);
    EXPECT_EQ(cal_chksum(words, 20), 0);
    EXPECT_EQ(cal_chksum(words, 21), htons(0x7FFF)); // an odd byte is the first of its word
    unsigned short carries[] = {0xFFFF, 0xFFFF, 1};  // twice
    EXPECT_EQ(cal_chksum(carries, 6), 0xFFFE);
}

TEST(Clocks, FreezeAndRun)
{
    const time_t before = getmytime(nullptr);
    setmytime(12345);
    set_uptime(12345);
    const time_t frozen = getmytime(nullptr);
    const int uptime = get_uptime(nullptr);
    EXPECT_TRUE(before > 12345 && before <= frozen && frozen <= time(nullptr));
    os_sleep(1100);
    time_t stored = 0;
    EXPECT_EQ(getmytime(&stored), frozen);
    EXPECT_EQ(stored, frozen);
    EXPECT_EQ(get_uptime(nullptr), uptime);
    EXPECT_GE(GetRandomPort(32768), 32768);
}
