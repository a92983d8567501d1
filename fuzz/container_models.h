// The list and the ring buffer as sequences of calls, against simple models. Data deals out what happens.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "libos.h"

inline uint32_t value_of(DListNode* node)
{
    uint32_t value;
    memcpy(&value, adt_dlist_getdata(node), sizeof(value));
    return value;
}

inline void require_same(DList* list, const std::vector<uint32_t>& model)
{
    std::vector<uint32_t> forward, backward;
    for (DListNode* at = adt_dlist_head(list); at; at = adt_dlist_next(at)) forward.push_back(value_of(at));
    for (DListNode* at = adt_dlist_end(list); at; at = adt_dlist_prev(at))
        backward.insert(backward.begin(), value_of(at));
    EXPECT_TRUE(forward == model && backward == model);
    EXPECT_TRUE(adt_dlist_size(list) == model.size() && bool(adt_dlist_empty(list)) == model.empty());
}

// The first difference ends it, since the calls behind it would go wrong, too.
void drive_list(auto& data)
{
    DList* list = adt_dlist_create(sizeof(uint32_t));
    std::vector<uint32_t> model;
    DListNode stranger = {};
    for (uint32_t i = 0; data.remaining_bytes() > 2 && i < 200 && !testing::Test::HasFailure(); ++i) {
        const size_t place =
            data.template ConsumeIntegralInRange<size_t>(0, model.size()); // one behind the end: NULL
        DListNode* node = adt_dlist_head(list);
        for (size_t k = 0; k < place && node; ++k) node = adt_dlist_next(node);
        const bool any = node;
        if (model.empty()) node = &stranger; // the position is ignored in an empty list
        const uint8_t what = data.template ConsumeIntegral<uint8_t>() % 5;
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

void write_ring(auto& data, RingBuf* ring, std::vector<uint8_t>& model, int32_t bufsize, int type)
{
    std::vector<uint8_t> bytes = data.template ConsumeBytes<uint8_t>(
        data.template ConsumeIntegralInRange<size_t>(0, 2 * size_t(bufsize)));
    // A writer that has to wait would wait for ever: nobody else reads.
    if (type == RINGBUF_WRITE_BLOCK) bytes.resize(std::min(bytes.size(), size_t(ringbuf_capacity(ring))));
    model.insert(model.end(), bytes.begin(), bytes.end());
    model.erase(model.begin(), model.end() - std::min<long>(bufsize, model.end() - model.begin()));
    bytes.reserve(1);
    EXPECT_EQ(ringbuf_write(int32_t(bytes.size()), bytes.data(), ring), bytes.empty() ? 0 : bufsize);
}

void read_ring(auto& data, RingBuf* ring, std::vector<uint8_t>& model)
{
    const int32_t wanted = data.template ConsumeIntegralInRange<int32_t>(0, 700);
    const int32_t count = std::min(wanted, int32_t(model.size()));
    std::vector<uint8_t> copy(size_t(wanted) + 1), read = copy;
    EXPECT_TRUE(model.empty() || *static_cast<uint8_t*>(ringbuf_getdata(ring)) == model[0]);
    EXPECT_EQ(ringbuf_copy(wanted, copy.data(), ring), count);
    if (data.ConsumeBool())
        EXPECT_EQ(ringbuf_remove(count, ring), 0);
    else
        EXPECT_TRUE(ringbuf_read(wanted, read.data(), ring) == count && read == copy);
    EXPECT_TRUE(std::equal(copy.begin(), copy.begin() + count, model.begin()));
    model.erase(model.begin(), model.begin() + count);
}

void drive_ring(auto& data)
{
    const int32_t bufsize = data.template ConsumeIntegralInRange<int32_t>(1, 300);
    const int type = data.ConsumeBool() ? RINGBUF_WRITE_BLOCK : RINGBUF_WRITE_COVER;
    RingBuf* ring = ringbuf_create(bufsize, type);
    std::vector<uint8_t> model;
    while (data.remaining_bytes() > 2 && !testing::Test::HasFailure()) {
        const uint8_t what = data.template ConsumeIntegral<uint8_t>() % 9;
        if (what == 8) {
            ringbuf_clear(ring);
            model.clear();
        } else if (what % 2) {
            write_ring(data, ring, model, bufsize, type);
        } else {
            read_ring(data, ring, model);
        }
        EXPECT_EQ(ringbuf_datasize(ring), int32_t(model.size()));
    }
    ringbuf_destroy(ring);
}
