// Start, stop and supervision of the web server thread.
#include "webserver/service.h"

#include "c2json/port_json.h"
#include "common/log.h"
#include "webs/webs.h"

#include <cctype>
#include <climits>
#include <sys/socket.h>
#include <unistd.h>

std::atomic<int> finished{1};
std::atomic<int> HTTP_WEB_PORT{WEB_PORT_DEFAULT};
std::atomic<int> listen_http_sid_ipv4{-1};
std::atomic<int> listen_https_sid_ipv4{-1};
pthread_t pid;

namespace {

// Ports are refused from this value on, taken as unsigned (so negative ports too).
constexpr unsigned kPortEnd = 65536;
// Pause between the stop and the new start after a port change.
constexpr unsigned kRestartPauseSeconds = 1;

void shutdown_listener(int sid)
{
    int fd = socketGetHandle(sid);
    if (fd >= 0)
        shutdown(fd, SHUT_RDWR);
}

}  // namespace

int web_service_start(WebParams *params)
{
    if (!params || static_cast<unsigned>(params->http_port) >= kPortEnd ||
        static_cast<unsigned>(params->https_port) >= kPortEnd)
        return -2;
    if (finished.load() == 0)
        return -14;
    finished = 0;
    if (pthread_create(&pid, nullptr, webservice_routine, params) != 0) {
        finished = 1;
        return -6;
    }
    return 0;
}

int web_service_stop()
{
    if (finished.load() != 0)
        return 0;
    // Flag first, so the event loop that the shutdown wakes sees it and ends.
    finished = 1;
    if (listen_http_sid_ipv4.load() != -1 || listen_https_sid_ipv4.load() != -1) {
        shutdown_listener(listen_https_sid_ipv4.load());
        shutdown_listener(listen_http_sid_ipv4.load());
        listen_https_sid_ipv4 = -1;
        listen_http_sid_ipv4 = -1;
    }
    pthread_join(pid, nullptr);
    // A thread stopped between its listen and the store of the id stored it after the check
    // above; once it has ended, nothing listens any more.
    listen_https_sid_ipv4 = -1;
    listen_http_sid_ipv4 = -1;
    return 0;
}

void supervise_once(WebParams *params)
{
    int wanted = HTTP_WEB_PORT.load();
    HTTP_PRINT("HTTP_WEB_PORT=%d web_params.http_port=%d\r\n", wanted, params->http_port);
    if (wanted == params->http_port)
        return;
    web_service_stop();
    sleep(kRestartPauseSeconds);
    // The requested port is taken as current before the start, so a refused start is not
    // retried until the port changes again.
    params->http_port = HTTP_WEB_PORT.load();
    web_service_start(params);
}

int http_port_from_text(const char *text)
{
    if (!text)
        return 0;
    while (isspace(static_cast<unsigned char>(*text)))
        ++text;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;
    long long value = 0;
    for (; isdigit(static_cast<unsigned char>(*text)); ++text) {
        value = value * 10 + (*text - '0');
        if (value > static_cast<long long>(INT_MAX) + 1)
            value = static_cast<long long>(INT_MAX) + 1;
    }
    value = negative ? -value : value;
    if (value > INT_MAX)
        return INT_MAX;
    return static_cast<int>(value);
}
