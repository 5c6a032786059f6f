// Client of the memory benchmark (bench/memory.sh), run inside tests/isolate.sh against the
// server on 127.0.0.1:PORT:
//   memory_client PORT hold CONNECTIONS ADDRESSES
//       opens CONNECTIONS keep-alive connections, spread over the source addresses 127.0.0.2
//       onwards (ADDRESSES of them: the server limits connections per address), sends a page
//       request on each and reads its reply, prints "held", keeps them open until a line
//       arrives on standard input, then closes them all and prints "closed".
//   memory_client PORT mixed REQUESTS CONNECTIONS SESSIONID
//       sends REQUESTS requests over CONNECTIONS keep-alive connections, one thread each: pages,
//       missing documents, byte ranges of a recording, HEAD, session probes, the device clock
//       and a relayed command; fails on any unexpected status. Prints the rate.
#include "common/owners.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void die(const std::string &what)
{
    fprintf(stderr, "memory_client: %s: %s\n", what.c_str(), strerror(errno));
    exit(1);
}

// A connection from 127.0.0.(2 + index % addresses).
UniqueFd connect_from(int port, int index, int addresses)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        die("socket");
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(0x7f000002u + static_cast<uint32_t>(index % addresses));
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
        die("bind");
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&server), sizeof server) != 0)
        die("connect");
    return fd;
}

void send_all(int fd, const std::string &data)
{
    for (size_t sent = 0; sent < data.size();) {
        ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            die("send");
        sent += static_cast<size_t>(n);
    }
}

// Reads one reply (its headers, then Content-Length bytes unless it has no body); returns
// its status. Bytes of a following reply stay in buffer.
int read_reply(int fd, std::string &buffer, bool head)
{
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        char chunk[16384];
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            die(n == 0 ? "the server closed the connection" : "recv");
        buffer.append(chunk, static_cast<size_t>(n));
    }
    int status = atoi(buffer.c_str() + 9);
    size_t length = 0;
    size_t at = buffer.find("\r\nContent-Length:");
    if (at == std::string::npos || at > end)
        at = buffer.find("\r\ncontent-length:");
    if (at != std::string::npos && at < end)
        length = strtoul(buffer.c_str() + at + 17, nullptr, 10);
    if (head || status == 304)
        length = 0;
    size_t total = end + 4 + length;
    while (buffer.size() < total) {
        char chunk[16384];
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            die(n == 0 ? "the server closed the connection" : "recv");
        buffer.append(chunk, static_cast<size_t>(n));
    }
    buffer.erase(0, total);
    return status;
}

std::string get(const std::string &method, const std::string &target, const std::string &extra = "")
{
    return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

std::string post(const std::string &target, const std::string &body)
{
    return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

int hold(int port, int connections, int addresses)
{
    std::vector<UniqueFd> held;
    std::string buffer;
    for (int i = 0; i < connections; ++i) {
        held.push_back(connect_from(port, i, addresses));
        send_all(held.back().get(), get("GET", "/login.html"));
        buffer.clear();
        if (read_reply(held.back().get(), buffer, false) != 200)
            die("a page request was refused");
    }
    printf("held\n");
    fflush(stdout);
    char line[16];
    if (!fgets(line, sizeof line, stdin))
        return 1;
    held.clear();
    printf("closed\n");
    fflush(stdout);
    return 0;
}

struct Step {
    std::string request;
    int status;
    bool head;
};

int mixed(int port, long requests, int connections, const std::string &session)
{
    const std::string q = "?sessionid=" + session;
    // One round of the mix: mostly documents, as a page load is, and the pages' requests.
    const std::vector<Step> round = {
        {get("GET", "/login.html"), 200, false},
        {get("GET", "/js/api.js"), 200, false},
        {get("GET", "/console.html"), 200, false},
        {get("GET", "/missing.html"), 404, false},
        {get("GET", "/sd/20240501/080000.mp4", "Range: bytes=100-1123\r\n"), 206, false},
        {get("HEAD", "/sd/20240502/120000.mp4"), 200, true},
        {get("GET", "/login.html", "If-Modified-Since: Thu, 01 Jan 2099 00:00:00 GMT\r\n"), 304, false},
        {post("/action/device/detection_sessionid" + q, ""), 200, false},
        {post("/action/device/get_device_localtime" + q, ""), 200, false},
        {post("/action/device/GetNetworkWIFIParameters" + q, "{}"), 200, false},
    };
    std::atomic<long> next{0};
    std::atomic<bool> failed{false};
    auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < connections; ++c)
        threads.emplace_back([&, c] {
            UniqueFd fd = connect_from(port, c, 8);
            std::string buffer;
            for (long i; (i = next.fetch_add(1)) < requests && !failed;) {
                const Step &step = round[static_cast<size_t>(i) % round.size()];
                send_all(fd.get(), step.request);
                int status = read_reply(fd.get(), buffer, step.head);
                if (status != step.status) {
                    fprintf(stderr, "memory_client: %d instead of %d for %s", status, step.status,
                            step.request.substr(0, step.request.find('\r')).c_str());
                    failed = true;
                }
            }
        });
    for (std::thread &t : threads)
        t.join();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf("%ld mixed requests in %.1f s (%.0f per second)\n", requests, seconds, requests / seconds);
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 5 && strcmp(argv[2], "hold") == 0)
        return hold(atoi(argv[1]), atoi(argv[3]), atoi(argv[4]));
    if (argc == 6 && strcmp(argv[2], "mixed") == 0)
        return mixed(atoi(argv[1]), atol(argv[3]), atoi(argv[4]), argv[5]);
    fprintf(stderr, "usage: memory_client PORT hold CONNECTIONS ADDRESSES | PORT mixed REQUESTS CONNECTIONS SESSIONID\n");
    return 2;
}
