// The libFuzzer entry points of one target, named by FUZZ_TARGET_NAME at compile time.
#include "fuzz_target.h"
#include "isolation.h"

#include <cstdio>
#include <cstdlib>

#ifndef FUZZ_TARGET_NAME
#error "FUZZ_TARGET_NAME names the target this binary runs"
#endif

namespace {

const FuzzTarget *target;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Targets lay out and change files at the device's fixed paths.
    if (!in_isolated_namespace()) {
        fprintf(stderr, "refusing to run: fuzz targets run inside tests/isolate.sh (see scripts/fuzz.sh)\n");
        exit(2);
    }
    target = find_fuzz_target(FUZZ_TARGET_NAME);
    if (!target) {
        fprintf(stderr, "no fuzz target %s in this binary\n", FUZZ_TARGET_NAME);
        exit(2);
    }
    if (target->init)
        target->init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    target->run(data, size);
    return 0;
}
