// The recursive lock that every event is handled under.
#pragma once

#include "libos_internal.h"

#pragma GCC visibility push(hidden)

bool make_main_lock();

struct MainGuard
{
    const CancelGuard whole;

    MainGuard() { os_main_lock(); }
    MainGuard(const MainGuard&) = delete;
    MainGuard& operator=(const MainGuard&) = delete;
    ~MainGuard() { os_main_unlock(); }
};

#pragma GCC visibility pop
