#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <random>

#include "libos.h"
#include "support.h"

// The list and the ring buffer as random sequences of calls, against simple models.
struct Dice
{
    std::mt19937 random;
    size_t operator()(size_t most) { return random() % (most + 1); }
};

static uint32_t value_of(DListNode* node)
{
    uint32_t value;
    memcpy(&value, adt_dlist_getdata(node), sizeof(value));
    return value;
}

static void require_same(DList* list, const std::vector<uint32_t>& model)
{
    std::vector<uint32_t> forward, backward;
    for (DListNode* at = adt_dlist_head(list); at; at = adt_dlist_next(at)) forward.push_back(value_of(at));
    for (DListNode* at = adt_dlist_end(list); at; at = adt_dlist_prev(at))
        backward.insert(backward.begin(), value_of(at));
    EXPECT_TRUE(forward == model && backward == model);
    EXPECT_TRUE(adt_dlist_size(list) == model.size() && bool(adt_dlist_empty(list)) == model.empty());
}

// The first difference ends it, since the calls behind it would go wrong, too.
static void drive_list(Dice& dice)
{
    DList* list = adt_dlist_create(sizeof(uint32_t));
    std::vector<uint32_t> model;
    DListNode stranger = {};
    for (uint32_t i = 0; i < 200 && !testing::Test::HasFailure(); ++i) {
        const size_t place = dice(model.size()); // one behind the end: NULL
        DListNode* node = adt_dlist_head(list);
        for (size_t k = 0; k < place && node; ++k) node = adt_dlist_next(node);
        const bool any = node;
        if (model.empty()) node = &stranger; // the position is ignored in an empty list
        const size_t what = dice(7);         // as many go as come, so that it is often empty
        if (what < 2) {
            EXPECT_TRUE(adt_dlist_insert(list, node, &i));
            model.insert(any ? model.begin() + long(place) : model.begin(), i);
        } else if (what < 4) {
            EXPECT_TRUE(adt_dlist_add(list, node, &i));
            model.insert(any ? model.begin() + long(place) + 1 : model.end(), i);
        } else if (any) {
            DListNode* next = adt_dlist_next(node);
            EXPECT_TRUE(i % 2 ? adt_dlist_delete_ex(list, node) == next : adt_dlist_delete(list, node) == 1);
            model.erase(model.begin() + long(place));
        }
        require_same(list, model);
    }
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}

static void write_ring(Dice& dice, RingBuf* ring, Bytes& model, int32_t bufsize, int type)
{
    Bytes bytes = noise(dice(2 * size_t(bufsize)), uint32_t(dice.random()));
    // A writer that has to wait would wait for ever: nobody else reads.
    if (type == RINGBUF_WRITE_BLOCK) bytes.resize(std::min(bytes.size(), size_t(ringbuf_capacity(ring))));
    model.insert(model.end(), bytes.begin(), bytes.end());
    model.erase(model.begin(), model.end() - std::min<long>(bufsize, model.end() - model.begin()));
    EXPECT_EQ(ringbuf_write(int32_t(bytes.size()), bytes.data(), ring), bytes.empty() ? 0 : bufsize);
}

static void read_ring(Dice& dice, RingBuf* ring, Bytes& model)
{
    const int32_t wanted = int32_t(dice(700));
    const int32_t count = std::min(wanted, int32_t(model.size()));
    Bytes copy(size_t(wanted), 0), read = copy;
    EXPECT_TRUE(model.empty() || *static_cast<uint8_t*>(ringbuf_getdata(ring)) == model[0]);
    EXPECT_EQ(ringbuf_copy(wanted, copy.data(), ring), count);
    if (dice(1))
        EXPECT_EQ(ringbuf_remove(count, ring), 0);
    else
        EXPECT_TRUE(ringbuf_read(wanted, read.data(), ring) == count && read == copy);
    EXPECT_TRUE(std::equal(copy.begin(), copy.begin() + count, model.begin()));
    model.erase(model.begin(), model.begin() + count);
}

static void drive_ring(Dice& dice)
{
    const int32_t bufsize = 1 + int32_t(dice(299));
    const int type = dice(1) ? RINGBUF_WRITE_BLOCK : RINGBUF_WRITE_COVER;
    RingBuf* ring = ringbuf_create(bufsize, type);
    Bytes model;
    for (int i = 0; i < 4000 && !testing::Test::HasFailure(); ++i) {
        const size_t what = dice(8);
        if (what == 8) {
            ringbuf_clear(ring);
            model.clear();
        } else if (what % 2) {
            write_ring(dice, ring, model, bufsize, type);
        } else {
            read_ring(dice, ring, model);
        }
        EXPECT_EQ(ringbuf_datasize(ring), int32_t(model.size()));
    }
    ringbuf_destroy(ring);
}

TEST(Containers, AnyMixOfCallsKeepsWhatTheModelsKeep)
{
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        Dice list{std::mt19937(seed)}, ring{std::mt19937(seed)};
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
