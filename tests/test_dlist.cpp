#include "../fuzz/container_models.h"
#include "support.h"

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
        require_same(list, {1});
    }
    EXPECT_FALSE(adt_dlist_next(nullptr) || adt_dlist_prev(nullptr) || adt_darray_create(4));
    EXPECT_EQ(adt_dlist_destroy(list), 1);
}
