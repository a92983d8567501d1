#include "../fuzz/container_models.h"

#include <atomic>
#include <memory>
#include <random>

#include "support.h"

// Deals out random numbers as the fuzzer does its bytes: the models it drives are driven on every machine.
struct RandomData
{
    std::mt19937 random;
    size_t left = 20000;

    size_t remaining_bytes() const { return left; }
    bool ConsumeBool() { return ConsumeIntegralInRange(0, 1); }
    template <typename T>
    T ConsumeIntegral()
    {
        return ConsumeIntegralInRange<T>(0, 255);
    }
    template <typename T>
    T ConsumeIntegralInRange(T from, T to)
    {
        left -= std::min<size_t>(left, 1);
        return T(from + T(random() % (uint64_t(to - from) + 1)));
    }
    template <typename T>
    Bytes ConsumeBytes(size_t count)
    {
        return noise(count, uint32_t(random()));
    }
};

TEST(Containers, AnyMixOfCallsKeepsWhatTheModelsKeep)
{
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        RandomData list{std::mt19937(seed)}, ring{std::mt19937(seed)};
        drive_list(list);
        drive_ring(ring);
    }
}

TEST(DList, LockIsRecursiveAndTheCallers)
{
    DList* list = adt_dlist_create(sizeof(uint32));
    uint32 value = 1;
    two_at_once([&](int) {
        for (int i = 0; i < 300; ++i) {
            EXPECT_EQ(adt_dlist_lock(list) + adt_dlist_lock(list), 2);
            adt_dlist_add(list, nullptr, &value);
            EXPECT_EQ(adt_dlist_unlock(list), 1);
            adt_dlist_insert(list, nullptr, &value);
            EXPECT_EQ(adt_dlist_unlock(list), 1);
        }
    });
    EXPECT_EQ(adt_dlist_size(list), 1200u);
    adt_dlist_destroy(list);
}

using Ring = std::unique_ptr<RingBuf, decltype(&ringbuf_destroy)>;

static std::string contents(const Ring& rb)
{
    char bytes[64];
    return std::string(bytes, static_cast<size_t>(ringbuf_copy(sizeof(bytes), bytes, rb.get())));
}

static void put(const Ring& rb, const std::string& bytes)
{
    EXPECT_EQ(ringbuf_write(static_cast<int32>(bytes.size()), bytes.data(), rb.get()), rb->bufsize);
}

TEST(Ringbuf, CountsComeDownAndWhatIsGoneStaysGone)
{
    const Ring rb(ringbuf_create(8, RINGBUF_WRITE_COVER), ringbuf_destroy);
    for (const uint32 writepos : {536870911u, 536870912u, 536870920u}) {
        for (uint32 i = 0; i < 4; ++i) rb->buf[(writepos - 4 + i) % 8] = static_cast<uint8>('a' + i);
        rb->readpos = writepos - 4;
        rb->writepos = writepos;
        put(rb, "ef");
        const uint32 less = writepos > 536870911 ? (writepos - 4) / 8 * 8 : 0; // a multiple of the size
        int32 read = 0, write = 0;
        ringbuf_get_index(rb.get(), &read, &write);
        EXPECT_EQ(static_cast<uint32>(read), writepos - 4 - less);
        EXPECT_EQ(write - read, 6);
        EXPECT_EQ(ringbuf_remove(-2, rb.get()), 0);
        EXPECT_EQ(contents(rb), "abcdef");
    }
    for (int i = 0; i < 5; ++i) { // three are enough to wrap a plain sum round to below writepos
        EXPECT_EQ(ringbuf_remove(INT32_MAX, rb.get()), 0);
        EXPECT_LE(ringbuf_datasize(rb.get()), 0);
        EXPECT_GE(ringbuf_capacity(rb.get()), 8);
    }
    put(rb, "defg");
    EXPECT_EQ(contents(rb), "defg");
}

// Read in pieces; first, when the writer is likely to wait, more is removed than there is, or all.
TEST(Ringbuf, BlockedWriterGetsEveryByteThrough)
{
    const Bytes bytes = noise(20000, 1);
    for (const int32 removed : {0, 100, -1}) {
        const Ring rb(ringbuf_create(8, RINGBUF_WRITE_BLOCK), ringbuf_destroy);
        std::atomic<bool> finished = false;
        put(rb, "........");
        std::thread writer([&] { put(rb, std::string(bytes.begin(), bytes.end())); });
        std::thread onlooker([&] { // without the lock
            int32 read, write;
            while (!finished) ringbuf_get_index(rb.get(), &read, &write);
        });
        os_sleep(20);
        removed < 0 ? ringbuf_clear(rb.get()) : ringbuf_remove(removed ? removed : 8, rb.get());
        os_sleep(20); // or the reader would reset the counts before the writer wakes
        for (size_t got = 0; got < bytes.size();) {
            uint8 piece[5];
            const int32 count = ringbuf_read(static_cast<int32>(1 + got % 5), piece, rb.get());
            ASSERT_LE(ringbuf_datasize(rb.get()), 8);
            for (int32 i = 0; i < count; ++i) ASSERT_EQ(piece[i], bytes[got++]);
            if (!count) std::this_thread::yield();
        }
        writer.join();
        finished = true;
        onlooker.join();
    }
}
