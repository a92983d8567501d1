// What the loop asks of each kind of descriptor, and what a server asks of the clients.
#pragma once

#include "libos_event.h"
#include "libos_internal.h"

#pragma GCC visibility push(hidden)

bool make_servers(uint32 count);
bool make_clients(uint32 count);
bool make_udps(uint32 count);

void epoll_dispath_server(const Event& event);
void epoll_dispath_client(const Event& event);
void epoll_dispath_udp(const Event& event);

void wake_resting_servers();
void close_servers(); // for os_cleanup()
void close_udps();

void watch_accepted(TcpClient* client);

bool make_timers();
void run_timers();

bool make_posts();
bool make_post_pipe();
void run_posted();

#pragma GCC visibility pop
