#include "libos_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <unistd.h>

void setnonblocking(int sock)
{
    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0) {
        os_report_errno("fcntl sock F_GETFL fail");
        exit(0);
    }
    if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        os_report_errno("fcntl sock F_SETFL fail");
        exit(0);
    }
}

void close_keeping_errno(int fd)
{
    ErrnoKeeper keeper;
    close(fd);
}

struct sockaddr_in socket_address(uint32 ip, uint16 port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(port);
    return address;
}

uint32 local_ip_number(const char* ip)
{
    return ip[0] ? inet_addr(ip) : htonl(INADDR_ANY);
}
