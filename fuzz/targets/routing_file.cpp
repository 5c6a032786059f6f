// The routing file (command_para), read into the routing table. A file is taken whole or not
// at all, every text stays within its field, and every listed command can be looked up.
#include "fuzz_target.h"
#include "common/owners.h"
#include "webserver/msg_exchange.h"
#include "webserver/routing_table.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr char kFile[] = "/tmp/fuzz_command_para";

template <size_t N>
bool terminated(const char (&field)[N])
{
    return memchr(field, '\0', N) != nullptr;
}

void run(const uint8_t *data, size_t size)
{
    {
        FilePtr f(fopen(kFile, "we"));
        FUZZ_CHECK(f && fwrite(data, 1, size, f.get()) == size, "the input is written");
    }
    int rc = http_read_routing_file(kFile);
    FUZZ_CHECK(rc == 0 || rc == -1, "read whole or refused");
    static const http_protocol_receiver empty{};
    for (const http_protocol_receiver &e : http_protocol_command) {
        if (rc != 0) {
            FUZZ_CHECK(memcmp(&e, &empty, sizeof e) == 0, "a refused file leaves the table empty");
            continue;
        }
        FUZZ_CHECK(terminated(e.receiver_name) && terminated(e.ipc_url), "names terminated");
        for (int k = 0; k < HTTP_PROTOCOL_CMD_MAX; ++k) {
            FUZZ_CHECK(terminated(e.command[k]) && terminated(e.cap_path[k]), "slots terminated");
            char path[HTTP_CAP_PATH_SIZE];
            if (e.command[k][0] && http_capability_protocol_matching(e.command[k], path))
                FUZZ_CHECK(terminated(path), "a capability path fits its buffer");
        }
    }
}

} // namespace

FUZZ_TARGET("routing_file", nullptr, run);
