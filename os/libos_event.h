// What an event of the loop carries.
#pragma once

#include <stdint.h>

#include "libos.h"

enum Kind : uint8
{
    KIND_SERVER = 0,
    KIND_CLIENT = 1,
    KIND_TICK = 2,
    KIND_POST = 3,
    KIND_UDP = 4
};

static const uint32 OPENS_MASK = 0xFFFFFF;

// A registered descriptor's 64-bit user value: from the lowest bit 16 of the session, 16 of the slot's index,
// 8 of the kind, 24 of the slot's count of opens. The pipes carry their kind alone.
struct Event
{
    Kind kind;
    uint32 index;
    uint32 session;
    uint32 opens;
    uint32 mask;
};

inline uint64_t event_value(Kind kind, uint32 index, uint32 session, uint32 opens)
{
    const uint32 tag = index << 16 | (session & 0xFFFF);
    const uint32 rest = (opens & OPENS_MASK) << 8 | kind;
    return uint64_t{rest} << 32 | tag;
}

inline Event event_from(uint64_t value, uint32 mask)
{
    const uint32 tag = static_cast<uint32>(value);
    const uint32 rest = static_cast<uint32>(value >> 32);
    return {static_cast<Kind>(rest & 0xFF), tag >> 16, tag & 0xFFFF, rest >> 8, mask};
}
