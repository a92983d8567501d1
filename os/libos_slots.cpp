#include "libos_slots.h"

#include <string.h>

#include <bit>

static uint64_t bit(uint32 position)
{
    return uint64_t{1} << (position % 64);
}

void slots_give(SlotMap& map, uint32 slot)
{
    map.bottom[slot / 64] |= bit(slot);
    map.middle[slot / 4096] |= bit(slot / 64);
    map.top |= bit(slot / 4096);
}

void slots_init(SlotMap& map, uint32 count)
{
    memset(&map, 0, sizeof(map));
    for (uint32 slot = 0; slot < count; ++slot) slots_give(map, slot);
}

int32 slots_take(SlotMap& map)
{
    if (!map.top) return -1;

    const uint32 middle = static_cast<uint32>(std::countr_zero(map.top));
    const uint32 bottom = middle * 64 + static_cast<uint32>(std::countr_zero(map.middle[middle]));
    const uint32 slot = bottom * 64 + static_cast<uint32>(std::countr_zero(map.bottom[bottom]));

    map.bottom[bottom] &= ~bit(slot);
    if (!map.bottom[bottom]) map.middle[middle] &= ~bit(bottom);
    if (!map.middle[middle]) map.top &= ~bit(middle);
    return static_cast<int32>(slot);
}
