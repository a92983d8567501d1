#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <string>

#include "libos.h"

TEST(HexText, EncodesEveryByte)
{
    std::string bytes, expected;
    for (int i = 0; i < 256; ++i) {
        char text[3];
        snprintf(text, sizeof(text), "%02x", i);
        expected += text;
        bytes.push_back(static_cast<char>(i));
    }
    std::string out(513, '#');
    EXPECT_EQ(os_encode(bytes.data(), 256, out.data()), 1);
    EXPECT_EQ(out, expected + '\0');
    EXPECT_EQ(os_decode(out.data(), 512, out.data()), 1); // in place
    EXPECT_EQ(out.substr(0, 256), bytes);

    for (const int32 none : {0, -3}) {
        char untouched = '#';
        EXPECT_EQ(os_encode(bytes.data(), none, &untouched), 1);
        EXPECT_EQ(os_decode(bytes.data(), none, &untouched), 1);
        EXPECT_EQ(untouched, '#');
    }
}

TEST(HexText, DecodesPairs)
{
    struct Case
    {
        std::string text;
        std::string bytes;
    };
    const Case cases[] = {
        {"00abFF", std::string("\0\xAB\xFF", 3)},
        {"abc", "\xAB"},      // odd end
        {"4gg4", "\x04\x04"}, // a digit and none; none first: the byte before
        {"zz12", std::string("\0\x12", 2)},
        {"12 4-1+1", "\x12\x12\x12\x12"},
        {"0x41", std::string("\0\x41", 2)},
    };
    for (const Case& c : cases) {
        std::string text = c.text;
        std::string out(c.bytes.size() + 1, '#');
        EXPECT_EQ(os_decode(text.data(), static_cast<int32>(text.size()), out.data()), 1);
        EXPECT_EQ(out, c.bytes + '#') << c.text;
    }
}

TEST(CodeConvert, ResultsAndReports)
{
    struct Case
    {
        const char* what;
        const char* from;
        const char* to;
        std::string src;
        int32 savelen;
        int32 result;
        const char* saved;
        int error; // reported
    };
    const Case cases[] = {
        {"plain letters", "UTF-8", "ASCII", "letters", 15, 7, "letters", 0},
        {"exactly full", "UTF-8", "ASCII", "letters", 7, 7, "letters", 0},
        {"wider", "UCS-2LE", "UTF-8", std::string("\xE9\0a\0", 4), 15, 3,
         "\xC3\xA9"
         "a",
         0},
        {"up to the first zero", "UTF-8", "UCS-2LE", "ab", 15, 1, "a", 0},
        {"broken off", "UTF-8", "UCS-2LE", "\xE4\xBD\xA0\xE4\xBD", 15, 2, "\x60\x4F", 0},
        {"no input", "UTF-8", "ASCII", "", 15, -1, "", EINVAL},
        {"invalid", "UTF-8", "ASCII",
         "ab\xFF"
         "cd",
         15, -3, "ab", EILSEQ},
        {"too small", "UTF-8", "ASCII", "letters", 2, -5, "le", E2BIG},
        {"less than nothing", "UTF-8", "ASCII", "letters", -1, -5, "", E2BIG},
        {"unknown set", "no-such-set", "ASCII", "letters", 15, -6, "", EINVAL},
        {"no set", nullptr, "ASCII", "letters", 15, -6, "", EINVAL},
    };
    for (const Case& c : cases) {
        std::string src = c.src;
        char save[16] = {};
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(os_code_convert(c.from, c.to, save, c.savelen, src.data(), static_cast<int32>(src.size())),
                  c.result)
            << c.what;
        const std::string line = ::testing::internal::GetCapturedStderr();
        EXPECT_STREQ(save, c.saved) << c.what;
        const std::string end = c.error ? std::string(" : ") + strerror(c.error) + "\n" : "";
        EXPECT_TRUE(line.ends_with(end) && line.empty() == end.empty()) << c.what << line;
    }
}

TEST(CustomFunction, InsideTheTableOnly)
{
    EXPECT_EQ(getcustomfunction(5), 0);
    gpiCustomFunc[5] = 7;
    gpiCustomFunc[1023] = -9;
    EXPECT_EQ(getcustomfunction(5), 7);
    EXPECT_EQ(getcustomfunction(1023), -9);
    gpiCustomFunc[5] = gpiCustomFunc[1023] = 0;
    for (const int outside : {-1, 1024, INT32_MIN, INT32_MAX}) EXPECT_EQ(getcustomfunction(outside), 0);
}
