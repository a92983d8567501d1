// The epoll set: which descriptors are watched.
#pragma once

#include <sys/epoll.h>

#include "libos_event.h"
#include "libos_internal.h"

#pragma GCC visibility push(hidden)

static const uint32 WATCH_LISTEN = EPOLLIN | EPOLLOUT;
static const uint32 WATCH_EDGES = WATCH_LISTEN | static_cast<uint32>(EPOLLET);

bool make_watch();
bool has_watch();

// As epoll_wait(), without a time-out.
int await_events(struct epoll_event* events, int room);

bool watch(int fd, uint32 mask, uint64_t value);
void watch_anew(int fd, uint32 mask, uint64_t value); // what is pending is announced again
void forget(int fd);
void forget_and_close(int fd); // for good: see os_cleanup()

// A pipe whose reading end announces itself as kind, and taking what it was written.
bool make_pipe(int (&ends)[2], Kind kind, const char* name);
void take_bytes(int fd);

#pragma GCC visibility pop
