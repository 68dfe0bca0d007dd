// What libFuzzer calls; built once for each target.
#include "fuzz/targets.h"

#include <cstddef>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qdb::fuzz::QDB_FUZZ_TARGET({data, size});
    return 0;
}
