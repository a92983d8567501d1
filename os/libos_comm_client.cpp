#include <stddef.h>

#include "libos_internal.h"

static_assert(sizeof(void*) != 4 ||
              (offsetof(CommClient, dup) == 20 && offsetof(CommClient, read_func) == 24 &&
               offsetof(CommClient, read_usr) == 28 && sizeof(CommClient) == 32));

CommClient* os_comm_client_create(int32, int, int, int, int, int)
{
    return nullptr;
}

int os_comm_client_destroy(CommClient*)
{
    return 0;
}

int32 os_comm_client_get_status(CommClient*)
{
    return 0;
}

int os_comm_client_open(CommClient*)
{
    return 0;
}

int os_comm_client_close(CommClient*)
{
    return 0;
}

int32 os_comm_client_send(CommClient*, char*, uint32)
{
    return 0;
}

int32 os_comm_client_read(CommClient*, char*, uint32)
{
    return 0;
}

int os_comm_client_set_udata(CommClient*, void*)
{
    return 0;
}

void* os_comm_client_get_udata(CommClient*)
{
    return nullptr;
}

int os_comm_client_bind_read(CommClient*, OnUdpClientReadFunc, void*)
{
    return 0;
}
