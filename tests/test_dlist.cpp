#include <cstring>
#include <random>

#include "support.h"

static void expect_same(DList* list, const std::vector<uint32>& model)
{
    const auto value_of = [](DListNode* node) {
        uint32 value;
        memcpy(&value, adt_dlist_getdata(node), sizeof(value));
        return value;
    };
    std::vector<uint32> forward, backward;
    for (DListNode* at = adt_dlist_head(list); at; at = adt_dlist_next(at)) forward.push_back(value_of(at));
    for (DListNode* at = adt_dlist_end(list); at; at = adt_dlist_prev(at))
        backward.insert(backward.begin(), value_of(at));
    ASSERT_EQ(forward, model);
    ASSERT_EQ(backward, model);
    ASSERT_EQ(adt_dlist_size(list), model.size());
    ASSERT_EQ(adt_dlist_empty(list), model.empty());
}

TEST(DList, RandomOperationsMatchAModel)
{
    std::mt19937 random(7);
    DList* list = adt_dlist_create(sizeof(uint32));
    DListNode stranger = {};
    std::vector<uint32> model;
    for (uint32 i = 0; i < 3000; ++i) {
        const size_t place = random() % (model.size() + 1); // one behind the end: NULL
        DListNode* node = adt_dlist_head(list);
        for (size_t k = 0; k < place && node; ++k) node = adt_dlist_next(node);
        const bool any = node;
        if (model.empty()) node = &stranger; // the position is ignored in an empty list
        uint32 value = i;
        const unsigned what = random() % (i % 500 < 250 ? 5 : 16); // fills up, then runs empty
        if (what < 2) {
            ASSERT_TRUE(adt_dlist_insert(list, node, &value));
            model.insert(any ? model.begin() + long(place) : model.begin(), i);
        } else if (what < 4) {
            ASSERT_TRUE(adt_dlist_add(list, node, &value));
            model.insert(any ? model.begin() + long(place) + 1 : model.end(), i);
        } else if (any) {
            DListNode* next = adt_dlist_next(node);
            ASSERT_TRUE(what % 2 ? adt_dlist_delete_ex(list, node) == next
                                 : adt_dlist_delete(list, node) == 1);
            model.erase(model.begin() + long(place));
        }
        value = 0xDEAD; // the node holds a copy
        expect_same(list, model);
    }
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}

TEST(DList, LockIsRecursiveAndTheCallers)
{
    DList* list = adt_dlist_create(sizeof(uint32));
    uint32 value = 1;
    two_at_once([&](int) {
        for (int i = 0; i < 300; ++i) {
            adt_dlist_lock(list);
            EXPECT_EQ(adt_dlist_lock(list), 1);
            adt_dlist_add(list, nullptr, &value);
            EXPECT_EQ(adt_dlist_unlock(list), 1);
            adt_dlist_insert(list, nullptr, &value);
            adt_dlist_unlock(list);
        }
    });
    EXPECT_EQ(adt_dlist_size(list), 1200u);
    adt_dlist_destroy(list);
}

TEST(DList, NullIsReportedAndHarmless)
{
    uint32 value = 1;
    DList* list = adt_dlist_create(sizeof(value));
    DListNode* node = adt_dlist_add(list, nullptr, &value);
    const std::pair<const char*, std::function<long()>> rows[] = {
        {"dlist is null", [&] { return adt_dlist_insert(nullptr, node, &value) || adt_dlist_head(nullptr); }},
        {"data is null",
         [&] { return adt_dlist_insert(list, node, nullptr) || adt_dlist_add(list, node, nullptr); }},
        {"node is null", [&] { return adt_dlist_delete(list, nullptr); }},
        {"node == NULL", [&] { return adt_dlist_delete_ex(list, nullptr) != nullptr; }},
    };
    for (const auto& [message, call] : rows) {
        const auto [result, lines] = told(2, call);
        EXPECT_EQ(result, 0);
        EXPECT_NE(lines.find(" " + std::string(message) + "\n"), lines.npos) << lines;
        expect_same(list, {1});
    }
    EXPECT_FALSE(adt_dlist_next(nullptr) || adt_dlist_prev(nullptr) || adt_darray_create(4));
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}
