// main() of every test binary: runs the tests only inside the private namespace of
// tests/isolate.sh, where /mnt and /tmp are the test's own tmpfs mounts.
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

bool is_tmpfs(const char *path)
{
    struct statfs st;
    return statfs(path, &st) == 0 && st.f_type == TMPFS_MAGIC;
}

// The initial user namespace maps the whole 32-bit range onto itself. The count needs 64
// bits: in a 32-bit long it could never equal 2^32 - 1, and the guard would never refuse.
bool in_initial_user_namespace()
{
    std::ifstream in("/proc/self/uid_map");
    unsigned long long inside = 0, outside = 0, count = 0;
    in >> inside >> outside >> count;
    return count == 4294967295ULL;
}

} // namespace

int main(int argc, char **argv)
{
    if (!getenv("WEB_TEST_ISOLATED") || in_initial_user_namespace() || !is_tmpfs("/mnt") || !is_tmpfs("/tmp")) {
        fprintf(stderr, "refusing to run: this test must run inside tests/isolate.sh, where /mnt and /tmp "
                        "are private (run it through ctest, or as tests/isolate.sh %s)\n",
                argv[0]);
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
