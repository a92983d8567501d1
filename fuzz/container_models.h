// The list and the ring buffer as sequences of calls, against simple models. Data deals out what happens.
#pragma once

#include "libos.h"
#include "require.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <vector>

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
    REQUIRE(forward == model && backward == model);
    REQUIRE(adt_dlist_size(list) == model.size() && bool(adt_dlist_empty(list)) == model.empty());
}

template <typename Data>
void drive_list(Data& data)
{
    DList* list = adt_dlist_create(sizeof(uint32_t));
    std::vector<uint32_t> model;
    DListNode stranger = {};
    for (uint32_t i = 0; data.remaining_bytes() > 2 && i < 200; ++i) {
        const size_t place =
            data.template ConsumeIntegralInRange<size_t>(0, model.size()); // one behind the end: NULL
        DListNode* node = adt_dlist_head(list);
        for (size_t k = 0; k < place && node; ++k) node = adt_dlist_next(node);
        const bool any = node;
        if (model.empty()) node = &stranger; // the position is ignored in an empty list
        uint32_t value = i;
        const uint8_t what = data.template ConsumeIntegral<uint8_t>() % 5;
        if (what < 2) {
            REQUIRE(adt_dlist_insert(list, node, &value));
            model.insert(any ? model.begin() + long(place) : model.begin(), i);
        } else if (what < 4) {
            REQUIRE(adt_dlist_add(list, node, &value));
            model.insert(any ? model.begin() + long(place) + 1 : model.end(), i);
        } else if (any) {
            DListNode* next = adt_dlist_next(node);
            REQUIRE(i % 2 ? adt_dlist_delete_ex(list, node) == next : adt_dlist_delete(list, node) == 1);
            model.erase(model.begin() + long(place));
        }
        require_same(list, model);
    }
    REQUIRE(adt_dlist_destroy(list) == 1);
}

template <typename Data>
void write_ring(Data& data, RingBuf* ring, std::deque<uint8_t>& model, int32_t bufsize, int type)
{
    std::vector<uint8_t> bytes = data.template ConsumeBytes<uint8_t>(
        data.template ConsumeIntegralInRange<size_t>(0, 2 * size_t(bufsize)));
    // A writer that has to wait would wait for ever: nobody else reads.
    if (type == RINGBUF_WRITE_BLOCK) bytes.resize(std::min(bytes.size(), size_t(ringbuf_capacity(ring))));
    model.insert(model.end(), bytes.begin(), bytes.end());
    while (model.size() > size_t(bufsize)) model.pop_front();
    bytes.reserve(1);
    REQUIRE(ringbuf_write(int32_t(bytes.size()), bytes.data(), ring) == (bytes.empty() ? 0 : bufsize));
}

template <typename Data>
void read_ring(Data& data, RingBuf* ring, std::deque<uint8_t>& model)
{
    const int32_t wanted = data.template ConsumeIntegralInRange<int32_t>(0, 700);
    const int32_t count = std::min(wanted, int32_t(model.size()));
    std::vector<uint8_t> copy(size_t(wanted) + 1), read(size_t(wanted) + 1);
    REQUIRE(model.empty() || *static_cast<uint8_t*>(ringbuf_getdata(ring)) == model[0]);
    REQUIRE(ringbuf_copy(wanted, copy.data(), ring) == count);
    if (data.ConsumeBool()) {
        REQUIRE(ringbuf_remove(count, ring) == 0);
    } else {
        REQUIRE(ringbuf_read(wanted, read.data(), ring) == count && read == copy);
    }
    REQUIRE(std::equal(copy.begin(), copy.begin() + count, model.begin()));
    model.erase(model.begin(), model.begin() + count);
}

template <typename Data>
void drive_ring(Data& data)
{
    const int32_t bufsize = data.template ConsumeIntegralInRange<int32_t>(1, 300);
    const int type = data.ConsumeBool() ? RINGBUF_WRITE_BLOCK : RINGBUF_WRITE_COVER;
    RingBuf* ring = ringbuf_create(bufsize, type);
    std::deque<uint8_t> model;
    while (data.remaining_bytes() > 2) {
        const uint8_t what = data.template ConsumeIntegral<uint8_t>() % 9;
        if (what == 8) {
            ringbuf_clear(ring);
            model.clear();
        } else if (what % 2) {
            write_ring(data, ring, model, bufsize, type);
        } else {
            read_ring(data, ring, model);
        }
        REQUIRE(ringbuf_datasize(ring) == int32_t(model.size()));
    }
    ringbuf_destroy(ring);
}
