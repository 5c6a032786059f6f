// The web layer's route file and authentication file, read through the layer's own entry
// points: a file is taken or refused, never anything else.
#include "fuzz_target.h"
#include "common/owners.h"
#include "webs/webs.h"

#include <cstdio>
#include <sys/stat.h>

namespace {

constexpr char kRoot[] = "/tmp/fuzz_www";
constexpr char kFile[] = "/tmp/fuzz_config.txt";

void init() { mkdir(kRoot, 0755); }

void write_input(const uint8_t *data, size_t size)
{
    FilePtr f(fopen(kFile, "we"));
    FUZZ_CHECK(f && fwrite(data, 1, size, f.get()) == size, "the input is written");
}

void routes(const uint8_t *data, size_t size)
{
    write_input(data, size);
    int rc = websOpen(kRoot, kFile);
    FUZZ_CHECK(rc == 0 || rc == -1, "taken or refused");
    websClose();
}

void auth(const uint8_t *data, size_t size)
{
    write_input(data, size);
    int rc = websLoad(kFile);
    FUZZ_CHECK(rc == 0 || rc == -1, "taken or refused");
}

} // namespace

FUZZ_TARGET("route_file", init, routes);
FUZZ_TARGET("auth_file", init, auth);
