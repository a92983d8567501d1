// What the network sources share: the loop's state, the slot tables and their locks, and what an event
// carries.
#pragma once

#include <stdint.h>
#include <sys/epoll.h>

#include <type_traits>

#include "libos_internal.h"
#include "libos_slots.h"

#pragma GCC visibility push(hidden)

// ---- fields that another thread may read while one writes

template <class T>
T peek(const T& field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <class T>
void put(T& field, std::type_identity_t<T> value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

// The user pointer first: who sees a function where there was none sees its pointer too.
template <class Func>
void bind_callback(Func& func, void*& usr, std::type_identity_t<Func> new_func, void* new_usr)
{
    put(usr, new_usr);
    put(func, new_func);
}

// ---- state

enum Kind : uint8
{
    KIND_SERVER = 0,
    KIND_CLIENT = 1,
    KIND_TICK = 2,
    KIND_POST = 3,
    KIND_UDP = 4
};

extern LMutex s_main_mutex;

// The slots with their count, the last session number, and the mutex around taking and releasing. Beside each
// table lie the free slots and, per slot, how often it was opened.
extern uint32 s_max_client_num, s_max_server_num, s_max_udp_num;
extern TcpClient* s_clients;
extern TcpServer* s_servers;
extern UdpClient* s_udps;
extern uint32 s_clients_num, s_servers_num, s_udps_num;
extern uint32 s_clients_session, s_servers_session, s_udps_session;
extern LMutex s_clients_mutex, s_servers_mutex, s_udps_mutex;
extern SlotMap s_clients_free, s_servers_free, s_udps_free;
extern uint32 *s_clients_opens, *s_servers_opens, *s_udps_opens;

extern DList* s_timer_ls;
extern DList* s_ls_main_thread_func;
extern int s_pipe_fd[2];
extern int s_pipe_fd_post[2];

inline uint32& opens_of(const TcpClient* client)
{
    return s_clients_opens[client - s_clients];
}

inline uint32& opens_of(const TcpServer* server)
{
    return s_servers_opens[server - s_servers];
}

inline uint32& opens_of(const UdpClient* client)
{
    return s_udps_opens[client - s_udps];
}

// ---- events

static const uint32 WATCH_LISTEN = EPOLLIN | EPOLLOUT;
static const uint32 WATCH_EDGES = WATCH_LISTEN | static_cast<uint32>(EPOLLET);
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

// Why an event cannot be for the slot it names: the text to report, nullptr when nothing speaks against it.
// A server's event is not refused for a slot that was released.
template <class Slot>
const char* stale_event(const Slot* table, uint32 size, const Event& event)
{
    if (event.index >= size) return "index out";

    const Slot& slot = table[event.index];
    if ((peek(slot.session) & 0xFFFF) != event.session) return "index session fail";
    if (event.kind != KIND_SERVER && peek(slot.index) == -1) return "client index == -1 fail";
    return nullptr;
}

// One opening of one slot, to ask after a callback, which may do anything, whether it is still there.
template <class Slot>
struct Opening
{
    Slot* slot;
    uint32 session;
    uint32 opens;
};

template <class Slot>
Opening<Slot> opening_of(Slot* slot)
{
    return {slot, peek(slot->session), peek(opens_of(slot)) & OPENS_MASK};
}

template <class Slot>
Opening<Slot> opening_of(Slot* slot, const Event& event)
{
    return {slot, peek(slot->session), event.opens};
}

// A new opening begins; the status follows. In this order an event of the last one never passes for ours.
template <class Slot>
Opening<Slot> begin_opening(Slot* slot)
{
    put(opens_of(slot), peek(opens_of(slot)) + 1);
    return opening_of(slot);
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
           (peek(opens_of(opening.slot)) & OPENS_MASK) == opening.opens;
}

template <class Slot>
uint64_t event_value(const Opening<Slot>& opening)
{
    const Slot* slot = opening.slot;
    return event_value(static_cast<Kind>(slot->type), static_cast<uint32>(peek(slot->index)), opening.session,
                       opening.opens);
}

// ---- operations

bool loop_watch(int fd, uint32 mask, uint64_t value);
void loop_rearm(int fd, uint32 mask, uint64_t value); // what is pending is announced again
void loop_forget(int fd);

void setnonblocking(int sock); // ends the process when it cannot
void close_keeping_errno(int fd);
struct sockaddr_in socket_address(uint32 ip, uint16 port); // ip as inet_addr() gives it
uint32 local_ip_number(const char* ip);                    // any address for an empty text
void clear_bytes(void* record, size_t from, size_t to);

void epoll_dispath_server(const Event& event);
void epoll_dispath_client(const Event& event);
void epoll_dispath_udp(const Event& event);

void run_timers();
void run_posted();
void wake_resting_servers();
void forget_resting_servers();

#pragma GCC visibility pop
