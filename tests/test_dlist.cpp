#include <cstring>
#include <random>
#include <thread>

#include "support.h"

static uint32 value_of(DListNode* node)
{
    uint32 value;
    memcpy(&value, adt_dlist_getdata(node), sizeof(value));
    return value;
}

static void expect_same(DList* list, const std::vector<uint32>& model)
{
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
    ASSERT_TRUE(list);
    std::vector<uint32> model;
    for (uint32 i = 0; i < 3000; ++i) {
        const size_t place = model.empty() ? 0 : random() % (model.size() + 1); // one behind the end: NULL
        DListNode* node = adt_dlist_head(list);
        for (size_t k = 0; k < place && node; ++k) node = adt_dlist_next(node);
        uint32 value = i;
        DListNode* made = nullptr;
        switch (random() % (model.size() > 20 ? 8 : 4)) {
        case 0:
        case 1:
            made = adt_dlist_insert(list, node, &value);
            model.insert(node ? model.begin() + long(place) : model.begin(), i);
            break;
        case 2:
        case 3:
            made = adt_dlist_add(list, node, &value);
            model.insert(node ? model.begin() + long(place) + 1 : model.end(), i);
            break;
        default:
            if (!node) break;
            if (random() % 2) {
                ASSERT_EQ(adt_dlist_delete(list, node), 1);
            } else {
                DListNode* next = adt_dlist_next(node);
                ASSERT_EQ(adt_dlist_delete_ex(list, node), next);
            }
            model.erase(model.begin() + long(place));
        }
        value = 0xDEAD; // the node holds a copy
        if (made) {
            ASSERT_EQ(value_of(made), i);
        }
        expect_same(list, model);
    }
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}

TEST(DList, PositionIsIgnoredInAnEmptyList)
{
    DList* list = adt_dlist_create(3);
    DListNode stranger = {};
    char abc[] = "abc";
    DListNode* node = adt_dlist_add(list, &stranger, abc);
    EXPECT_EQ(adt_dlist_head(list), node);
    EXPECT_EQ(adt_dlist_end(list), node);
    EXPECT_EQ(adt_dlist_delete_ex(list, node), nullptr);
    EXPECT_EQ(adt_dlist_empty(list), 1);
    node = adt_dlist_insert(list, &stranger, abc);
    EXPECT_EQ(adt_dlist_head(list), node);
    EXPECT_EQ(adt_dlist_size(list), 1u);
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
    static uint32 value = 1;
    static DList* list = adt_dlist_create(sizeof(value));
    static DListNode* node = adt_dlist_add(list, nullptr, &value);
    struct
    {
        const char* message; // none is reported when NULL
        long (*call)();
    } const rows[] = {
        {"dlist is null", [] { return long(adt_dlist_destroy(nullptr)); }},
        {"dlist is null", [] { return long(adt_dlist_insert(nullptr, nullptr, &value) != nullptr); }},
        {"dlist is null", [] { return long(adt_dlist_add(nullptr, nullptr, &value) != nullptr); }},
        {"dlist is null", [] { return long(adt_dlist_head(nullptr) != nullptr); }},
        {"dlist is null", [] { return long(adt_dlist_end(nullptr) != nullptr); }},
        {"dlist is null", [] { return long(adt_dlist_size(nullptr)); }},
        {"dlist is null", [] { return long(adt_dlist_empty(nullptr)); }},
        {"dlist is null", [] { return long(adt_dlist_delete(nullptr, node)); }},
        {"node is null", [] { return long(adt_dlist_delete(list, nullptr)); }},
        {"dlist == NULL", [] { return long(adt_dlist_delete_ex(nullptr, node) != nullptr); }},
        {"node == NULL", [] { return long(adt_dlist_delete_ex(list, nullptr) != nullptr); }},
        {"dlist is null", [] { return long(adt_dlist_lock(nullptr)); }},
        {"dlist is null", [] { return long(adt_dlist_unlock(nullptr)); }},
        {"data is null", [] { return long(adt_dlist_insert(list, nullptr, nullptr) != nullptr); }},
        {"data is null", [] { return long(adt_dlist_add(list, node, nullptr) != nullptr); }},
        {nullptr, [] { return long(adt_dlist_next(nullptr) != nullptr); }},
        {nullptr, [] { return long(adt_dlist_prev(nullptr) != nullptr); }},
        {nullptr, [] { return long(adt_darray_create(4) != nullptr); }},
        {nullptr,
         [] { return long(adt_darray_insert(nullptr, 0, &value) + adt_darray_push_back(nullptr, &value)); }},
        {nullptr,
         [] {
             return long(adt_darray_delete(nullptr, 0) + (adt_darray_get_by_index(nullptr, 0) != nullptr));
         }},
        {nullptr, [] { return long(adt_darray_length(nullptr) + adt_darray_destroy(nullptr)); }},
    };
    for (const auto& row : rows) {
        long result = -1;
        const std::string line = written_to(2, [&] { result = row.call(); });
        EXPECT_EQ(result, 0) << line;
        if (row.message)
            EXPECT_NE(line.find(" " + std::string(row.message) + "\n"), line.npos) << line;
        else
            EXPECT_EQ(line, "");
        expect_same(list, {1});
    }
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}
