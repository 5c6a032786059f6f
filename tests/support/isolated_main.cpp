// main() of every test binary: runs the tests only inside the private namespace of
// tests/isolate.sh, where /mnt and /tmp are the test's own tmpfs mounts.
#include "isolation.h"

#include <cstdio>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    if (!in_isolated_namespace()) {
        fprintf(stderr, "refusing to run: this test must run inside tests/isolate.sh, where /mnt and /tmp "
                        "are private (run it through ctest, or as tests/isolate.sh %s)\n",
                argv[0]);
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
