#include <fuzzer/FuzzedDataProvider.h>

#include "container_models.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    data.ConsumeBool() ? drive_list(data) : drive_ring(data);
    return 0;
}
