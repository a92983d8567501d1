// Checks that end the run.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void require(bool holds, const char* what, const char* file, int line)
{
    if (holds) return;
    fprintf(stderr, "%s:%d: %s\n", file, line, what);
    abort();
}
#define REQUIRE(condition) require(condition, #condition, __FILE__, __LINE__)
