#include "../fuzz/container_models.h"

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
