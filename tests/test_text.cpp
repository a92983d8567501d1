#include <errno.h>
#include <string.h>

#include "libos.h"
#include "support.h"

using namespace std::string_literals;

TEST(HexText, EncodesEveryByte)
{
    std::string bytes, expected;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<char>(i));
        expected += {"0123456789abcdef"[i / 16], "0123456789abcdef"[i % 16]};
    }
    std::string out(513, '#');
    EXPECT_EQ(os_encode(bytes.data(), 256, out.data()), 1);
    EXPECT_EQ(out, expected + '\0');
    EXPECT_EQ(os_decode(out.data(), 512, out.data()), 1); // in place
    EXPECT_EQ(out.substr(0, 256), bytes);
    out = "#";
    EXPECT_EQ(os_encode(bytes.data(), -3, out.data()) + os_decode(bytes.data(), -3, out.data()), 2);
    EXPECT_EQ(out, "#");
}

TEST(HexText, DecodesPairs)
{
    const std::pair<std::string, std::string> cases[] = {
        {"00abFF", "\0\xAB\xFF"s}, {"abc", "\xAB"}, // odd end
        {"4gg4", "\4\4"},                           // a digit and none; none first: the byte before
        {"zz12", "\0\x12"s},       {"12 4-1+1g7", "\x12\4\xFF\1\1"},
    };
    for (const auto& [digits, bytes] : cases) {
        std::string out(bytes.size() + 1, '#');
        EXPECT_EQ(os_decode(text(digits), static_cast<int32>(digits.size()), out.data()), 1);
        EXPECT_EQ(out, bytes + '#') << digits;
    }
}

TEST(CodeConvert, ResultsAndReports)
{
    const struct
    {
        const char *from, *to;
        std::string src;
        int32 savelen, result;
        const char* saved;
        int error; // reported
    } cases[] = {
        {"UTF-8", "ASCII", "letters", 7, 7, "letters", 0}, // exactly full
        {"UCS-2LE", "UTF-8", "\xE9\0a\0"s, 15, 3, "\303\251a", 0},
        {"UTF-8", "UCS-2LE", "ab", 15, 1, "a", 0},                          // up to the first zero
        {"UTF-8", "UCS-2LE", "\xE4\xBD\xA0\xE4\xBD", 15, 2, "\x60\x4F", 0}, // broken off
        {"UTF-8", "ASCII", "", 15, -1, "", EINVAL},
        {"UTF-8", "ASCII", "ab\377cd", 15, -3, "ab", EILSEQ},
        {"UTF-8", "ASCII", "letters", 2, -5, "le", E2BIG},
        {"UTF-8", "ASCII", "letters", -1, -5, "", E2BIG},
        {"no-such-set", "ASCII", "letters", 15, -6, "", EINVAL},
        {nullptr, "ASCII", "letters", 15, -6, "", EINVAL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        char save[16] = {};
        const int32 size = static_cast<int32>(c.src.size());
        const std::string line = written_to(2, [&] {
            EXPECT_EQ(os_code_convert(c.from, c.to, save, c.savelen, text(c.src), size), c.result);
        });
        EXPECT_STREQ(save, c.saved);
        EXPECT_TRUE(c.error ? line.ends_with(" : "s + strerror(c.error) + "\n") : line.empty()) << line;
    }
}

TEST(CustomFunction, InsideTheTableOnly)
{
    gpiCustomFunc[1023] = -9;
    EXPECT_EQ(getcustomfunction(1023), -9);
    gpiCustomFunc[5] = gpiCustomFunc[1023] = 0;
    for (const int outside : {-1, 1024, INT32_MIN, INT32_MAX}) EXPECT_EQ(getcustomfunction(outside), 0);
}
