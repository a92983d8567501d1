#include <errno.h>
#include <string.h>

#include "net_support.h"

using namespace std::string_literals;

TEST(HexText, ThereAndBack)
{
    const std::string bytes = "\x01\x23\x45\x67\x89\xAB\xCD\xEF", digits = "0123456789abcdef";
    std::string out(18, '#');
    EXPECT_EQ(os_encode(text(bytes), 8, out.data()), 1);
    EXPECT_EQ(os_encode(text(bytes), -3, out.data()) + os_decode(text(digits), -3, out.data()), 2);
    EXPECT_EQ(out, digits + "\0#"s);
    const std::pair<std::string, std::string> cases[] = {
        {digits, bytes},     {"00abFF", "\0\xAB\xFF"s},       {"abc", "\xAB"}, // odd end
        {"4gg4", "\4\4"}, // a digit and none; none first: the byte before
        {"zz12", "\0\x12"s}, {"12 4-1+1g7", "\x12\4\xFF\1\1"}};
    for (const auto& [from, to] : cases) {
        out = from + '#';
        EXPECT_EQ(os_decode(out.data(), static_cast<int32>(from.size()), out.data()), 1); // in place
        EXPECT_EQ(out, to + (from + '#').substr(to.size()));
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
    for (const auto& [from, to, src, savelen, result, saved, error] : cases) {
        char save[16] = {};
        const int32 size = static_cast<int32>(src.size());
        const auto [got, line] =
            told(2, [&] { return os_code_convert(from, to, save, savelen, text(src), size); });
        EXPECT_EQ(std::tuple(got, std::string(save)), std::tuple(result, saved)) << src;
        EXPECT_EQ(messages(line), error ? ": "s + strerror(error) + "\n" : "");
    }
}

TEST(CustomFunction, InsideTheTableOnly)
{
    gpiCustomFunc[1023] = -9;
    EXPECT_EQ(getcustomfunction(1023), -9);
    for (const int outside : {-1, 1024, INT32_MIN, INT32_MAX}) EXPECT_EQ(getcustomfunction(outside), 0);
    gpiCustomFunc[1023] = 0;
}
