#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>
#include <sys/times.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "common_fun.h"

namespace {

using Texts = std::vector<std::string>;

// A text with nothing readable behind its terminator, so that a step too far is seen.
std::unique_ptr<char[]> text(const std::string& from)
{
    auto copy = std::make_unique<char[]>(from.size() + 1);
    memcpy(copy.get(), from.c_str(), from.size() + 1);
    return copy;
}

// count zeroed fields of size bytes each, and the pointers to them.
struct Fields
{
    std::vector<std::string> bytes;
    std::vector<char*> at;

    Fields(size_t count, size_t size) : bytes(count, std::string(size, 0))
    {
        for (std::string& field : bytes) at.push_back(field.data());
    }
    Texts texts() const { return Texts(at.begin(), at.end()); }
};

} // namespace

TEST(Addresses, NumbersAsText)
{
    char out[16];
    for (const auto& [value, radix, expected] :
         {std::tuple{0u, 16, "0"}, {4294967295u, 2, "4294967295"}, {1000u, 10, "1000"}}) {
        itoa(value, out, radix);
        EXPECT_STREQ(out, expected);
    }
    EXPECT_EQ(IPAddressU32ToChar(0x0201A8C0, out), 0);
    EXPECT_STREQ(out, "192.168.1.2");
    memset(out, '#', sizeof(out));
    IPAddressU32ToChar(0xFFFFFFFF, out);
    EXPECT_EQ(std::string(out, 16), std::string("255.255.255.255\0", 16));

    for (const auto& [ip, expected] : {std::pair{"192.168.1.2", 0xC0A80102u},
                                       {"1.2", 0x01020000u},
                                       {"", 0u},
                                       {" 1. 2.+3.4", 0x01020304u},
                                       {"0.0.0.-1", 0xFFFFFFFFu},
                                       {"0.0.256.4294967297", 0x8000FFFFu}})
        EXPECT_EQ(ipstring2u32(text(ip).get()), expected) << ip;
    EXPECT_EQ(ipstring2u32(nullptr), 0u);
}

TEST(Addresses, Valid)
{
    const std::pair<int, Texts> groups[] = {
        {1, {"192.168.1.1", "1.0.0.0", "255.255.255.255", "223.1.1.1", "240.1.1.1", "1.2.3.4.", "1.2.3.4.x"}},
        {2, {"224.0.0.1", "239.9.9.9"}},
        {3, {"0.0.0.0", "0.0.0.0x"}},
        {-1, {"0.1.2.3", "256.1.1.1", "1.1.1.256", "1.-1.1.1", "1.2.3", "1..2.3", "", "1.2.3.4.5"}},
        {-1, {"4294967297.1.1.1", "18446744073709551617.1.1.1"}}, // 1.1.1.1 in 32 and in 64 bits
    };
    for (const auto& [expected, ips] : groups)
        for (const std::string& ip : ips) EXPECT_EQ(IsValidIP(text(ip).get()), expected) << ip;
    EXPECT_EQ(IsValidIP(nullptr), -1);
}

TEST(Addresses, Normalised)
{
    using Row = std::tuple<const char*, int, const char*>;
    for (const auto& [before, result, after] :
         {Row{"192.168.001.010", 1, "192.168.1.10"},
          {"1..3.4", 0, "1..3.4"},
          {"1.2.3. 4", 0, "1.2.3. 4"},
          {"1a.2b.3.4.5", 1, "1.2.3.4"},
          {"1.2.3.00000000000000000007", 1, "1.2.3.0"},
          {"00000000000000000001.2.3.4", 0, "00000000000000000001.2.3.4"},
          {"1.2.3.2147483648", 1, "1.2.3.2147483647"},
          {"", 0, ""}}) {
        const auto ip = text(before);
        EXPECT_EQ(ChangeIpAddr(ip.get()), result) << before;
        EXPECT_STREQ(ip.get(), after);
    }

    char mac[] = "0a:1b:22:33:44:55";
    ReverseMAC(mac);
    EXPECT_STREQ(mac, "55:44:33:22:1b:0a");
    for (const char* other : {"00:11:22:33:44:5", "00:11:22:33:44:556", "00:11:22:33:44-55", ""}) {
        const auto left = text(other);
        ReverseMAC(left.get());
        EXPECT_STREQ(left.get(), other);
    }
}

TEST(Addresses, OfDevices)
{
    char address[16], mask[16], loopback[] = "lo", none[] = "no-such-device-of-a-long-name";
    if (get_local_address(address, mask, loopback) == 0) {
        EXPECT_STREQ(address, "127.0.0.1");
        EXPECT_STREQ(mask, "255.0.0.0");
    }
    EXPECT_EQ(get_local_address(nullptr, nullptr, none), 0);
    EXPECT_EQ(get_local_address(nullptr, mask, none), -1);
    EXPECT_EQ(get_local_address(address, mask, nullptr), -1);
}

TEST(Splitting, AtAString)
{
    struct Case
    {
        const char *source, *separator, *left, *right;
        Texts fields;
    };
    for (const Case& c : {Case{"a,b,c", ",", "a", "b,c", {"a", "b", ""}},
                          {"a,b,c,", ",", "a", "b,c,", {"a", "b", "c"}},
                          {"ab--c--", "--", "ab", "c--", {"ab", "c"}},
                          {",,", ",", "", ",", {"", ""}},
                          {"abc", "", "", "", {""}},
                          {"", ",", "", "", {}}}) {
        const auto source = text(c.source), separator = text(c.separator);
        char out[16] = "####";
        EXPECT_EQ(OnCharLeft(source.get(), separator.get(), out), 0);
        EXPECT_STREQ(out, c.left) << c.source;
        EXPECT_EQ(OnCharRight(source.get(), separator.get(), out), 0);
        EXPECT_STREQ(out, c.right) << c.source;

        const int count = static_cast<int>(c.fields.size());
        Fields fields(c.fields.size() + 1, 8);
        EXPECT_EQ(SplitStringToArrayEx(text(c.source).get(), separator.get(), fields.at.data(), count + 1),
                  count);
        EXPECT_EQ(SplitStringToArray(source.get(), separator.get(), fields.at.data()), count) << c.source;
        fields.at.pop_back();
        EXPECT_EQ(fields.texts(), c.fields);
        EXPECT_STREQ(source.get(), "");
    }
    Fields two(2, 8);
    char comma[] = ",";
    EXPECT_EQ(SplitStringToArrayEx(text("a,b,c,").get(), comma, two.at.data(), 2), -1);
    EXPECT_EQ(two.texts(), (Texts{"a", "b"}));
    EXPECT_EQ(SplitStringToArrayEx(text("a,").get(), comma, two.at.data(), 0), -1);
}

TEST(Splitting, AtACharacter)
{
    struct Case
    {
        const char* source;
        int length, count, result;
        Texts fields;
    };
    unsigned char point[] = ".";
    for (const Case& c : {Case{"a.b", 16, 4, 2, {"a", "b", "", ""}},
                          {"", 16, 4, 1, {"", "", "", ""}},
                          {"a.b.c.d.e", 16, 4, -3, {"a", "b", "c", "d"}},
                          {"a..c.", 16, 4, 4, {"a", "", "c", ""}},
                          {"abcd.e", 4, 2, -2, {"abcd", ""}},
                          {"abc.e", 4, 2, 2, {"abc", "e"}},
                          {"a", 0, 1, -2, {""}}}) {
        Fields fields(c.fields.size(), 16);
        const auto source = text(c.source);
        EXPECT_EQ(SplitString(reinterpret_cast<unsigned char*>(source.get()), point,
                              reinterpret_cast<unsigned char**>(fields.at.data()), c.length, c.count),
                  c.result)
            << c.source;
        EXPECT_EQ(fields.texts(), c.fields);
    }

    char text1[] = "a,b,c", text2[] = "a,b,c", text3[] = "a, b", comma[] = ",", two[] = ", ", none[] = "";
    char* tokens[6] = {};
    EXPECT_EQ(strtoken_r(text1, comma, tokens, 0), -1);
    EXPECT_EQ(strtoken_r(text1, none, tokens, 5), 1);
    EXPECT_EQ(strtoken_r(text1, comma, tokens, 5), 3);
    EXPECT_EQ(Texts(tokens, tokens + 3), (Texts{"a", "b", "c"}));
    EXPECT_EQ(strtoken_r(text2, comma, tokens, 1), 1);
    EXPECT_EQ(Texts(tokens, tokens + 2), (Texts{"a", "b,c"}));
    EXPECT_EQ(strtoken_r(text3, two, tokens, 5), 2);
    EXPECT_STREQ(tokens[1], " b");
}

TEST(Splitting, RunsOfBytes)
{
    struct Case
    {
        const char* bytes;
        int n, result;
        std::vector<int> starts, lengths;
    };
    for (const Case& c : {Case{",,ab,,c", 4, 2, {2, 6, -1, -1, -1}, {2, 1, -1, -1, -1}},
                          {"a,b,c,", 1, 3, {0, 2}, {1, 4}},
                          {"a,b,", 4, 2, {0, 2, -1, -1, -1}, {1, 1, -1, -1, -1}},
                          {"ab,", 0, 1, {0}, {3}},
                          {",,,", 0, 0, {-1}, {-1}}}) {
        const size_t length = strlen(c.bytes);
        auto bytes = std::make_unique<char[]>(length);
        memcpy(bytes.get(), c.bytes, length);
        std::vector<char*> at(c.starts.size());
        std::vector<int> lengths(c.starts.size(), -1), starts;
        EXPECT_EQ(kt_strnchr(bytes.get(), static_cast<int>(length), ',', at.data(), lengths.data(), c.n),
                  c.result);
        for (const char* start : at) starts.push_back(start ? static_cast<int>(start - bytes.get()) : -1);
        EXPECT_EQ(starts, c.starts) << c.bytes;
        EXPECT_EQ(lengths, c.lengths) << c.bytes;
    }
    EXPECT_EQ(kt_strnchr(nullptr, 1, ',', nullptr, nullptr, 0), -1);

    for (const auto& [string, expected] :
         {std::pair{"abc123", 1}, {"abc-1", 0}, {"a b_c", 1}, {"_", 1}, {"", 0}, {"\xE4", 0}})
        EXPECT_EQ(check_string(text(string).get()), expected) << string;
    EXPECT_EQ(check_string(nullptr), 0);
}

TEST(Bits, ThereAndBack)
{
    int bits[160] = {};
    for (const unsigned long long number : {0ull, 1ull, 5ull, 1ull << 63, ~0ull}) {
        memset(bits, 0, sizeof(bits));
        const int count = decimal2binary(number, bits);
        EXPECT_EQ(count, number ? 64 - __builtin_clzll(number) : 0);
        EXPECT_EQ(binary2decimal(64, bits), number);
    }
    EXPECT_EQ(binary2decimal(1 << 30, bits), ~0ull);
    EXPECT_EQ(binary2decimal(3, nullptr), ~0ull);

    memset(bits, 0, sizeof(bits));
    unsigned int words[4] = {0x80000001, 0, 0xDEADBEEF, 6}, back[5] = {}, across[5] = {};
    EXPECT_EQ(decimal2binaryEx(words, bits, 97), 0);
    EXPECT_EQ(bits[0] + bits[31], 2);
    EXPECT_EQ(Netbinary2decimalEx(160, bits, back), 0);
    EXPECT_EQ(memcmp(words, back, sizeof(words)), 0);
    EXPECT_EQ(back[4], 0u);
    EXPECT_EQ(Netbinary2decimalEx(1, bits, back), 0); // adds
    EXPECT_EQ(back[0], 2u);
    for (int j = 0; j < 32; ++j) bits[j] = j == 3 ? 0x12 : 0;
    EXPECT_EQ(binary2decimalEx(160, bits, across), 0);
    EXPECT_EQ(std::vector<unsigned int>(across, across + 5), (std::vector<unsigned int>{0, 8, 0, 0, 8}));

    EXPECT_EQ(decimal2binaryEx(words, bits, 129), -3);
    EXPECT_EQ(decimal2binaryEx(words, nullptr, 129), -2);
    EXPECT_EQ(Netbinary2decimalEx(161, bits, back), -1);
    EXPECT_EQ(binary2decimalEx(161, bits, back), -1);
    EXPECT_EQ(decimal2binaryEx(words, bits, -5), 0);

    EXPECT_EQ(pow1(3, 21), 1870418611); // 10460353203 less 2 * 2^32
    EXPECT_EQ(pow1(7, 0), 1);
    EXPECT_EQ(pow1(-2, 2) + pow1(2, -1) + pow1(2, 32), 0);
}

TEST(Encodings, Base64AndChecksum)
{
    for (const auto& [bytes, expected] :
         {std::pair{"Man", "TWFu"}, {"Ma", "TWE="}, {"M", "TQ=="}, {"", ""}, {"\xFB\xFF\xBF~", "+/+/fg=="}}) {
        const size_t length = strlen(bytes);
        const auto out = std::make_unique<unsigned char[]>(strlen(expected) + 1);
        to_base64(out.get(), reinterpret_cast<const unsigned char*>(bytes), static_cast<int>(length));
        EXPECT_STREQ(reinterpret_cast<char*>(out.get()), expected);
    }

    // The header and its sum are a published example.
    unsigned short words[11] = {};
    memcpy(words, "\x45\0\0\x73\0\0\x40\0\x40\x11\0\0\xc0\xa8\0\x01\xc0\xa8\0\xc7\x80\x99", 22);
    EXPECT_EQ(cal_chksum(words, 20), htons(0xB861));
    words[5] = htons(0xB861);
    EXPECT_EQ(cal_chksum(words, 20), 0);
    EXPECT_EQ(cal_chksum(words, 21), htons(0x7FFF)); // an odd byte is the first of its word
    EXPECT_EQ(cal_chksum(nullptr, 20), 0xFFFF);
}

TEST(Clocks, FreezeAndRun)
{
    time_t stored = 0;
    const time_t now = time(nullptr);
    EXPECT_NEAR(static_cast<double>(getmytime(&stored)), static_cast<double>(now), 2);
    int untouched = -7;
    EXPECT_GT(get_uptime(&untouched), 0);
    EXPECT_EQ(untouched, -7);
    struct tms process;
    const int32_t ticks = static_cast<int32_t>(times(&process));
    EXPECT_NEAR(static_cast<double>(get_uptime_ms()), ticks * 1000.0 / sysconf(_SC_CLK_TCK) + 300000, 5000);

    setmytime(12345);
    set_uptime(12345);
    const time_t frozen = getmytime(nullptr);
    const int uptime = get_uptime(nullptr);
    EXPECT_NEAR(static_cast<double>(frozen), static_cast<double>(now), 2);
    const timespec more_than_a_second = {1, 100000000};
    nanosleep(&more_than_a_second, nullptr);
    EXPECT_EQ(getmytime(&stored), frozen);
    EXPECT_EQ(stored, frozen);
    EXPECT_EQ(get_uptime(nullptr), uptime);

    EXPECT_GE(GetRandomPort(10000), 10000);
    EXPECT_GE(GetRandomPort(32768), 32768);
}
