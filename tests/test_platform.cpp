#include <algorithm>
#include <cerrno>
#include <thread>

#include "platform.h"
#include "support.h"

TEST(Platform, ErrorsAndExchangeAcrossThreads)
{
    std::thread([] { EXPECT_EQ(WSASetLastError(10054), 10054); }).join();
    EXPECT_EQ(GetLastError(), 10054);
    SetLastError(-7);
    EXPECT_EQ(WSAGetLastError(), -7);
    EXPECT_EQ(closesocket(-1), -1);
    EXPECT_EQ(errno, EBADF);

    LONG cells[] = {0, 77}; // every token that goes in comes out once, and the neighbour stays
    int64_t taken[2] = {0, 0};
    two_at_once([&](int who) {
        for (LONG i = 1; i <= 20000; ++i) taken[who] += InterlockedExchange(cells, i);
    });
    EXPECT_EQ(taken[0] + taken[1] + cells[0], 2 * (20000L * 20001L / 2));
    EXPECT_EQ(std::pair(int(cells[1]), sizeof(LONG)), std::pair(77, size_t(4)));
}

TEST(Platform, TextsAreCutToTheirBuffer)
{
    for (const int size : {-5, 0, 1, 8, 10, 11, 12}) {
        SCOPED_TRACE(size);
        std::string copied(13, '#'), printed = copied, want = copied;
        EXPECT_EQ(StringCbCopyA(copied.data(), size, "0123456789"), 0);
        EXPECT_EQ(StringCbPrintfA(printed.data(), size, "%d%s", 12345, "67890"), 0);
        const size_t room = size_t(std::max(size, 0));
        EXPECT_EQ(copied.substr(room) + printed.substr(room), want.substr(room) + want.substr(room));
        if (room == 0) continue;
        EXPECT_EQ(copied.c_str(), std::string("0123456789").substr(0, room - 1));
        EXPECT_EQ(printed.c_str(), std::string("1234567890").substr(0, room - 1));
        EXPECT_TRUE(copied[room - 1] == 0 && printed[room - 1] == 0);
    }
    unsigned int length = 99;
    EXPECT_TRUE(StringCbLengthA("four", &length) == 0 && length == 4) << length;
}
