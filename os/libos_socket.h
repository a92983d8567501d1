// Descriptors and addresses of sockets.
#pragma once

#include "libos_internal.h"

#pragma GCC visibility push(hidden)

void setnonblocking(int sock); // ends the process when it cannot
void close_keeping_errno(int fd);
struct sockaddr_in socket_address(uint32 ip, uint16 port); // ip as inet_addr() gives it
uint32 local_ip_number(const char* ip);                    // any address for an empty text

#pragma GCC visibility pop
