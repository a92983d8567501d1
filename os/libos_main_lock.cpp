#include "libos_main_lock.h"

static LMutex s_main_mutex;

bool make_main_lock()
{
    return os_mutex_init(&s_main_mutex, 1) || os_refuse(false, "os_mutex_init s_main_mutex fail");
}

int os_main_lock(void)
{
    return os_mutex_lock(&s_main_mutex);
}

int os_main_unlock(void)
{
    return os_mutex_unlock(&s_main_mutex);
}
