// The models that the fuzzer drives, with random numbers, on every machine.
#include "../fuzz/container_models.h"

#include <random>

#include "support.h"

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
