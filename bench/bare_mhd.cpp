// bare_mhd PORT
//
// The yardstick of the session probe benchmark: libmicrohttpd alone, in the web layer's
// event-loop style and limits (external epoll loop on one thread, the same connection memory
// and limits, listening on 127.0.0.1:PORT), answering every request, once its body is read,
// with the bytes and headers the server sends for a live session's probe. No routing, no
// second thread, no log.
#include "webs/webs_limits.h"

#include <cstdio>
#include <cstdlib>
#include <csignal>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>

namespace {

// cJSON's formatted print of {"Result": "OK"}.
constexpr char kReply[] = "{\n\t\"Result\":\t\"OK\"\n}";

volatile sig_atomic_t stop = 0;

MHD_Result answer(void *, MHD_Connection *connection, const char *, const char *, const char *,
                  const char *, size_t *upload_data_size, void **req_cls)
{
    if (!*req_cls) {  // headers only: wait for the body
        *req_cls = connection;
        return MHD_YES;
    }
    if (*upload_data_size > 0) {
        *upload_data_size = 0;
        return MHD_YES;
    }
    MHD_Response *response =
        MHD_create_response_from_buffer(sizeof kReply - 1, const_cast<char *>(kReply), MHD_RESPMEM_PERSISTENT);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json; charset=utf-8");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, MHD_HTTP_HEADER_X_CONTENT_TYPE_OPTIONS, "nosniff");
    MHD_Result rc = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: bare_mhd PORT\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGTERM, [](int) { stop = 1; });
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(strtol(argv[1], nullptr, 10)));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    MHD_Daemon *daemon = MHD_start_daemon(MHD_USE_EPOLL | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, answer, nullptr,
                                          MHD_OPTION_SOCK_ADDR, &addr,
                                          MHD_OPTION_CONNECTION_LIMIT, webs_limits::kMaxConnections,
                                          MHD_OPTION_PER_IP_CONNECTION_LIMIT, webs_limits::kMaxConnectionsPerAddress,
                                          MHD_OPTION_CONNECTION_TIMEOUT, webs_limits::kIdleTimeoutSeconds,
                                          MHD_OPTION_CONNECTION_MEMORY_LIMIT, webs_limits::kConnectionMemory,
                                          MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_END);
    if (!daemon) {
        fprintf(stderr, "bare_mhd: cannot listen on port %s\n", argv[1]);
        return 1;
    }
    printf("bare_mhd: ready\n");
    fflush(stdout);
    while (!stop)
        MHD_run_wait(daemon, webs_limits::kMaxLoopWaitMs);
    MHD_stop_daemon(daemon);
    return 0;
}
