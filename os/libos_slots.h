// Which slots of a table are free. Three levels of bits, so that the lowest free slot is found in constant
// time.
#pragma once

#include <stdint.h>

#include "libos_internal.h"

static const uint32 SLOTS_MAX = 65536;

// A set bit is a free slot, or, a level higher, a word below with a set bit. All zero: no slots.
struct SlotMap
{
    uint64_t top;
    uint64_t middle[16];
    uint64_t bottom[SLOTS_MAX / 64];
};

// Slots 0 to count - 1 become free; count is at most SLOTS_MAX.
OS_LOCAL void slots_init(SlotMap& map, uint32 count);

// The lowest free slot, no longer free; -1 when there is none.
OS_LOCAL int32 slots_take(SlotMap& map);

OS_LOCAL void slots_give(SlotMap& map, uint32 slot);
