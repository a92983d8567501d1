// Fields that another thread may read while one writes.
#pragma once

#include <type_traits>

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
