#include <gtest/gtest.h>

#include <string.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "libos.h"

namespace {

using Ring = std::unique_ptr<RingBuf, decltype(&ringbuf_destroy)>;

Ring ring(int32 bufsize, int type)
{
    return Ring(ringbuf_create(bufsize, type), ringbuf_destroy);
}

std::string contents(const Ring& rb)
{
    std::string bytes(64, 0);
    const int32 count = ringbuf_copy(static_cast<int32>(bytes.size()), bytes.data(), rb.get());
    return bytes.substr(0, static_cast<size_t>(count));
}

void put(const Ring& rb, const std::string& bytes)
{
    EXPECT_EQ(ringbuf_write(static_cast<int32>(bytes.size()), bytes.data(), rb.get()), rb->bufsize);
}

// The running byte number n, in a sequence whose period is no multiple of a buffer's size.
uint8 byte_at(uint32 n)
{
    return static_cast<uint8>(n % 251);
}

struct Counts
{
    int32 read, write;

    explicit Counts(const Ring& rb) { ringbuf_get_index(rb.get(), &read, &write); }
};

} // namespace

TEST(Ringbuf, CoverKeepsTheNewest)
{
    struct Case
    {
        const char* before;
        int32 removed;
        const char *written, *left;
    };
    for (const Case& c : {Case{"123", 0, "45678", "12345678"}, // fits
                          {"123456", 0, "789AB", "456789AB"},
                          {"12345678", 0, "9", "23456789"},
                          {"123456", 2, "789ABC", "56789ABC"},
                          {"123", 0, "abcdefgh", "abcdefgh"},
                          {"123", 0, "abcdefghijk", "defghijk"},
                          {"123", 7, "abc", "abc"}}) {
        const Ring rb = ring(8, RINGBUF_WRITE_COVER);
        put(rb, c.before);
        ringbuf_remove(c.removed, rb.get());
        put(rb, c.written);
        EXPECT_EQ(contents(rb), c.left) << c.before << c.written;
        EXPECT_EQ(ringbuf_datasize(rb.get()) + ringbuf_capacity(rb.get()), 8);
    }
}

TEST(Ringbuf, AnyMixOfCallsKeepsTheStream)
{
    std::mt19937 random(7);
    for (const int32 bufsize : {1, 8, 13, 300}) {
        for (const int type : {RINGBUF_WRITE_BLOCK, RINGBUF_WRITE_COVER}) {
            const Ring rb = ring(bufsize, type);
            std::deque<uint8> model;
            uint32 next = 0;
            for (int step = 0; step < 3000; ++step) {
                uint8 bytes[700];
                int32 size = static_cast<int32>(random() % (2 * static_cast<uint32>(bufsize) + 2));
                if (random() % 2) {
                    if (type == RINGBUF_WRITE_BLOCK) size = std::min(size, ringbuf_capacity(rb.get()));
                    for (int32 i = 0; i < size; ++i) model.push_back(bytes[i] = byte_at(next++));
                    while (model.size() > static_cast<size_t>(bufsize)) model.pop_front();
                    EXPECT_EQ(ringbuf_write(size, bytes, rb.get()), size ? bufsize : 0);
                } else {
                    const int32 count = std::min(size, static_cast<int32>(model.size()));
                    if (count > 0) {
                        EXPECT_EQ(*static_cast<uint8*>(ringbuf_getdata(rb.get())), model[0]);
                    }
                    ASSERT_EQ(ringbuf_copy(size, bytes, rb.get()), count);
                    ASSERT_EQ(ringbuf_read(size, bytes, rb.get()), count);
                    ASSERT_TRUE(std::equal(bytes, bytes + count, model.begin()));
                    model.erase(model.begin(), model.begin() + count);
                }
                ASSERT_EQ(ringbuf_datasize(rb.get()), static_cast<int32>(model.size()));
            }
        }
    }
}

TEST(Ringbuf, CountsStartAgain)
{
    const Ring rb = ring(8, RINGBUF_WRITE_COVER);
    put(rb, "abcdefghijklmnopqrst");
    EXPECT_EQ(Counts(rb).read, 0);
    EXPECT_EQ(Counts(rb).write, 8);
    char sink[8];
    ringbuf_read(8, sink, rb.get());
    EXPECT_EQ(Counts(rb).write, 8);
    EXPECT_EQ(ringbuf_read(8, sink, rb.get()), 0);
    EXPECT_EQ(Counts(rb).write, 0);

    // Large counts come down by the same multiple of the size; one less than that and they stay.
    for (const uint32 writepos : {536870911u, 536870912u, 536870920u}) {
        const uint32 readpos = writepos - 4;
        memset(rb->buf, '.', 8);
        for (uint32 i = 0; i < 4; ++i) rb->buf[(readpos + i) % 8] = static_cast<uint8>('a' + i);
        rb->readpos = readpos;
        rb->writepos = writepos;
        put(rb, "ef");
        const uint32 less = writepos > 536870911 ? readpos / 8 * 8 : 0;
        EXPECT_EQ(static_cast<uint32>(Counts(rb).read), readpos - less);
        EXPECT_EQ(static_cast<uint32>(Counts(rb).write), writepos + 2 - less);
        EXPECT_EQ(contents(rb), "abcdef");
    }
}

TEST(Ringbuf, RemovingTooMuchBringsNothingBack)
{
    const Ring rb = ring(8, RINGBUF_WRITE_BLOCK);
    put(rb, "abc");
    EXPECT_EQ(ringbuf_remove(-2, rb.get()), 0);
    EXPECT_EQ(contents(rb), "abc");
    for (const int32 size : {INT32_MAX, INT32_MAX, 3}) { // together 2^32 + 1
        EXPECT_EQ(ringbuf_remove(size, rb.get()), 0);
        EXPECT_LE(ringbuf_datasize(rb.get()), 0);
        EXPECT_GE(ringbuf_capacity(rb.get()), 8);
    }
    put(rb, "defg");
    EXPECT_EQ(contents(rb), "defg");
}

TEST(Ringbuf, BlockedWriterGetsEveryByteThrough)
{
    const Ring rb = ring(8, RINGBUF_WRITE_BLOCK);
    static const int32 TOTAL = 20000;
    std::atomic<bool> done = false;
    std::thread writer([&] {
        std::string bytes;
        for (uint32 i = 0; i < TOTAL; ++i) bytes.push_back(static_cast<char>(byte_at(i)));
        EXPECT_EQ(ringbuf_write(TOTAL, bytes.data(), rb.get()), 8);
    });
    std::thread onlooker([&] {
        while (!done) {
            Counts counts(rb);
            EXPECT_GE(counts.write, 0);
            EXPECT_LE(ringbuf_datasize(rb.get()), 8);
        }
    });
    for (int32 got = 0; got < TOTAL;) {
        uint8 bytes[5];
        const int32 count = ringbuf_read(1 + got % 5, bytes, rb.get());
        for (int32 i = 0; i < count; ++i) ASSERT_EQ(bytes[i], byte_at(static_cast<uint32>(got++)));
        if (!count) std::this_thread::yield();
    }
    writer.join();
    done = true;
    onlooker.join();
}

TEST(Ringbuf, BlockedWriterFindsTooMuchRemoved)
{
    const Ring rb = ring(8, RINGBUF_WRITE_BLOCK);
    put(rb, "........");
    std::thread writer([&] { put(rb, "abcdefghijkl"); });
    os_sleep(20);
    ringbuf_remove(100, rb.get());
    for (int i = 0; i < 500 && ringbuf_datasize(rb.get()) != 8; ++i) os_sleep(2);
    EXPECT_EQ(contents(rb), "abcdefgh"); // and not the four that came after them
    std::string got;
    for (int i = 0; i < 500 && got.size() < 12; ++i, os_sleep(2)) {
        char bytes[4];
        got.append(bytes, static_cast<size_t>(ringbuf_read(4, bytes, rb.get())));
    }
    writer.join();
    EXPECT_EQ(got, "abcdefghijkl");
}

TEST(Ringbuf, RefusesAndReports)
{
    const Ring rb = ring(8, RINGBUF_WRITE_BLOCK);
    char bytes[8];
    struct Case
    {
        const char* report; // "" when nothing is to be reported
        intptr_t result;
        std::function<intptr_t()> call;
    };
    const Case cases[] = {
        {"bufsize<=0", 0, [] { return (intptr_t)ringbuf_create(0, 2); }},
        {"unkonw ringbug write type", 0, [] { return (intptr_t)ringbuf_create(16, 2); }},
        {"ptbuf is null", -1, [&] { return ringbuf_write(1, bytes, nullptr); }},
        {"src is null", -1, [&] { return ringbuf_write(1, nullptr, rb.get()); }},
        {"", -5, [] { return ringbuf_write(-5, nullptr, nullptr); }},
        {"ptbuf is null", -1, [&] { return ringbuf_read(1, bytes, nullptr); }},
        {"dst is null", -1, [&] { return ringbuf_read(1, nullptr, rb.get()); }},
        {"", -5, [] { return ringbuf_read(-5, nullptr, nullptr); }},
        {"", -1, [&] { return ringbuf_copy(1, bytes, nullptr); }},
        {"dst is null", -1, [&] { return ringbuf_copy(1, nullptr, rb.get()); }},
        {"ptbuf is null", -1, [] { return ringbuf_remove(1, nullptr); }},
        {"ptbuf is null", -1, [] { return ringbuf_clear(nullptr); }},
        {"ptbuf is null", 0, [] { return (intptr_t)ringbuf_getdata(nullptr); }},
        {"", 0, [] { return ringbuf_datasize(nullptr) + ringbuf_capacity(nullptr); }},
    };
    for (const Case& c : cases) {
        const auto row = &c - cases;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(c.call(), c.result) << row;
        const std::string line = ::testing::internal::GetCapturedStderr();
        const std::string end = *c.report ? std::string(" ") + c.report + "\n" : "";
        EXPECT_TRUE(line.ends_with(end) && line.empty() == end.empty()) << row << line;
    }
    ringbuf_destroy(nullptr);
}
