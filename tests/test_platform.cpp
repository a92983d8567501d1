#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "platform.h"

TEST(Platform, LastErrorIsOneForTheProcess)
{
    std::thread([] { EXPECT_EQ(WSASetLastError(10054), 10054); }).join();
    EXPECT_EQ(GetLastError(), 10054);
    SetLastError(-7);
    EXPECT_EQ(WSAGetLastError(), -7);
    EXPECT_EQ(INFINITE, 0xFFFFFFFFu);
}

struct Cut
{
    int size;
    const char* kept; // nothing is written when NULL
};

TEST(Platform, TextsAreCutToTheirBuffer)
{
    for (const Cut& cut : {Cut{8, "0123456"}, Cut{10, "012345678"}, Cut{11, "0123456789"},
                           Cut{12, "0123456789"}, Cut{1, ""}, Cut{0, nullptr}, Cut{-5, nullptr}}) {
        SCOPED_TRACE(cut.size);
        std::string copied(13, '#'), printed(13, '#');
        EXPECT_EQ(StringCbCopyA(copied.data(), cut.size, "0123456789"), 0);
        EXPECT_EQ(StringCbPrintfA(printed.data(), cut.size, "%d%s", 1234, "56789x"), 0);
        if (!cut.kept) {
            EXPECT_EQ(copied, std::string(13, '#'));
            EXPECT_EQ(printed, std::string(13, '#'));
            continue;
        }
        EXPECT_STREQ(copied.c_str(), cut.kept);
        EXPECT_EQ(std::string(printed.c_str()),
                  std::string("123456789x").substr(0, std::string(cut.kept).size()));
        EXPECT_EQ(copied[size_t(cut.size) - 1], '\0');
        EXPECT_EQ(printed[size_t(cut.size) - 1], '\0');
        EXPECT_EQ(copied.substr(size_t(cut.size)), std::string(13 - size_t(cut.size), '#'));
    }
}

TEST(Platform, SmallCalls)
{
    unsigned int length = 99;
    EXPECT_EQ(StringCbLengthA("", &length), 0);
    EXPECT_EQ(length, 0u);
    StringCbLengthA("four", &length);
    EXPECT_EQ(length, 4u);

    errno = 0;
    EXPECT_EQ(closesocket(-1), -1);
    EXPECT_EQ(errno, EBADF);

    long value = 5;
    EXPECT_EQ(InterlockedExchange(&value, 7), 5);
    EXPECT_EQ(value, 7);
}

// Every token that goes in comes out once, whatever the threads do in between.
TEST(Platform, ExchangeLosesNothing)
{
    long cell = 0, taken[2] = {0, 0};
    const auto swapper = [&](int who) {
        for (long i = 1; i <= 20000; ++i) taken[who] += InterlockedExchange(&cell, i);
    };
    std::thread other(swapper, 1);
    swapper(0);
    other.join();
    EXPECT_EQ(taken[0] + taken[1] + cell, 2 * (20000L * 20001L / 2));
}
