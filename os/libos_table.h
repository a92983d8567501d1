// What the three kinds of sockets do alike with the slots of their tables: making a table, taking a slot,
// giving it back, telling one opening of a slot from the next.
#pragma once

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "libos_event.h"
#include "libos_fields.h"
#include "libos_slots.h"

// The parts of a table. They belong to the file of its kind. The slots themselves are never freed.
template <class Slot>
struct Table
{
    Kind kind;
    int Slot::*fd; // a slot's descriptor; what follows it in the record is never cleared
    Slot*& slots;
    uint32& max;     // how many slots there are
    uint32& num;     // how many are taken
    uint32& session; // the last one given
    LMutex& mutex;   // around taking and giving back
    SlotMap& unused;
    uint32*& opens; // for each slot, how often it was opened
};

// ---- the table

template <class Slot>
bool make_slots(const Table<Slot>& table, uint32 count, const char* name)
{
    const size_t room = std::max(count, 1U);
    Slot* made = static_cast<Slot*>(calloc(room, sizeof(Slot)));
    table.opens = static_cast<uint32*>(calloc(room, sizeof(uint32)));
    if (!made || !table.opens) {
        os_report_errno("malloc %s fail", name);
        free(made);
        free(table.opens);
        table.opens = nullptr;
        return false;
    }
    for (uint32 i = 0; i < count; ++i) made[i].index = -1;
    slots_init(table.unused, count);
    table.slots = made;
    table.max = count;
    return true;
}

template <class Slot>
bool make_table(const Table<Slot>& table, uint32 count, const char* mutex, const char* name)
{
    if (!os_mutex_init(&table.mutex, 0)) return os_refuse(false, "os_mutex_init %s fail", mutex);
    return make_slots(table, count, name);
}

// ---- taking a slot and giving it back

inline void clear_bytes(void* record, size_t from, size_t to)
{
    memset(static_cast<char*>(record) + from, 0, to - from);
}

// A cleared slot with this descriptor, nullptr when none is free. Status, descriptor, index and session are
// what other threads look at. The caller holds the mutex, and hands the slot out when the rest is filled in.
template <class Slot>
Slot* take_slot(const Table<Slot>& table, int fd)
{
    const int32 index = slots_take(table.unused);
    if (index == -1) return nullptr;

    ++table.num;
    Slot* slot = &table.slots[index];
    int& descriptor = slot->*table.fd;
    const size_t descriptor_at =
        static_cast<size_t>(reinterpret_cast<char*>(&descriptor) - reinterpret_cast<char*>(slot));
    clear_bytes(slot, 0, offsetof(Slot, status));
    clear_bytes(slot, offsetof(Slot, status) + sizeof(slot->status), descriptor_at);
    slot->type = table.kind;
    put(descriptor, fd);
    put(slot->status, 0);
    return slot;
}

template <class Slot>
Slot* hand_out(const Table<Slot>& table, Slot* slot)
{
    put(slot->session, ++table.session);
    put(slot->index, static_cast<int32>(slot - table.slots));
    return slot;
}

// With its descriptor, when that is still open. False when the slot was free already.
template <class Slot>
bool release_slot(const Table<Slot>& table, Slot* slot)
{
    MutexGuard guard(&table.mutex);
    const int32 index = peek(slot->index);
    if (index == -1) return false;

    put(slot->index, -1);
    const int fd = peek(slot->*table.fd);
    if (fd != -1) close(fd);
    put(slot->*table.fd, -1);
    slots_give(table.unused, static_cast<uint32>(index));
    --table.num;
    return true;
}

// ---- openings

// One opening of one slot, to ask after a callback, which may do anything, whether it is still there.
template <class Slot>
struct Opening
{
    Slot* slot;
    uint32* opened; // how often, at present
    uint32 session;
    uint32 opens;
};

template <class Slot>
Opening<Slot> opening_of(const Table<Slot>& table, Slot* slot)
{
    uint32* opened = &table.opens[slot - table.slots];
    return {slot, opened, peek(slot->session), peek(*opened) & OPENS_MASK};
}

// A new opening begins; the status follows. In this order an event of the last one never passes for ours.
template <class Slot>
Opening<Slot> begin_opening(const Table<Slot>& table, Slot* slot)
{
    uint32& opened = table.opens[slot - table.slots];
    put(opened, peek(opened) + 1);
    return opening_of(table, slot);
}

template <class Slot>
bool holds_slot(const Opening<Slot>& opening)
{
    return peek(opening.slot->index) != -1 && peek(opening.slot->session) == opening.session;
}

// Status before the count: see begin_opening().
template <class Slot>
bool is_open(const Opening<Slot>& opening)
{
    return holds_slot(opening) && peek(opening.slot->status) != 0 &&
           (peek(*opening.opened) & OPENS_MASK) == opening.opens;
}

template <class Slot>
uint64_t event_value(const Opening<Slot>& opening)
{
    const Slot* slot = opening.slot;
    return event_value(static_cast<Kind>(slot->type), static_cast<uint32>(peek(slot->index)), opening.session,
                       opening.opens);
}

// ---- events

// Why an event cannot be for the slot it names: the text to report, nullptr when nothing speaks against it.
// A server's event is not refused for a slot that was released.
template <class Slot>
const char* stale_event(const Table<Slot>& table, const Event& event)
{
    if (event.index >= table.max) return "index out";

    const Slot& slot = table.slots[event.index];
    if ((peek(slot.session) & 0xFFFF) != event.session) return "index session fail";
    if (event.kind != KIND_SERVER && peek(slot.index) == -1) return "client index == -1 fail";
    return nullptr;
}

// The opening that an event is for, when it is not stale.
template <class Slot>
Opening<Slot> opening_of(const Table<Slot>& table, const Event& event)
{
    Slot* slot = &table.slots[event.index];
    return {slot, &table.opens[event.index], peek(slot->session), event.opens};
}

// For os_cleanup().
template <class Slot>
void close_taken(const Table<Slot>& table, void (*close_descriptor)(int fd))
{
    for (uint32 i = 0; i < table.max; ++i)
        if (peek(table.slots[i].index) != -1) close_descriptor(peek(table.slots[i].*table.fd));
}
