// Whether this process runs inside tests/isolate.sh: a private user namespace where /mnt and
// /tmp are the process's own tmpfs mounts, so the device paths used verbatim by the code
// never reach the machine's. Header-only: the fuzz targets, built without the test support
// library, ask it too.
#pragma once

#include <cstdlib>
#include <fstream>
#include <linux/magic.h>
#include <sys/vfs.h>

inline bool in_isolated_namespace()
{
    auto is_tmpfs = [](const char *path) {
        struct statfs st;
        return statfs(path, &st) == 0 && st.f_type == TMPFS_MAGIC;
    };
    // The initial user namespace maps the whole 32-bit range onto itself. The count needs 64
    // bits: in a 32-bit long it could never equal 2^32 - 1, and the guard would never refuse.
    std::ifstream in("/proc/self/uid_map");
    unsigned long long inside = 0, outside = 0, count = 0;
    in >> inside >> outside >> count;
    return getenv("WEB_TEST_ISOLATED") && count != 4294967295ULL && is_tmpfs("/mnt") && is_tmpfs("/tmp");
}
