// What the fuzz targets share.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include "require.h"

using Bytes = std::vector<uint8_t>;

// The library prints markers; libFuzzer uses standard error.
inline void silence_output()
{
    REQUIRE(freopen("/dev/null", "w", stdout) != nullptr);
}
