// Process-wide values of the service host, shared by the main thread (start, supervisor,
// stop) and the web server thread.
#pragma once

#include <atomic>
#include <pthread.h>

// The start-up parameter record; lives in main for the whole process.
struct WebParams {
    int http_port;
    int https_port;
    char ip_addr[16];
    char interfaces_name[8];
};

// 0 while a web server thread runs; 1 when none runs or the running one is told to finish.
extern std::atomic<int> finished;
// The port the web server is to run on; written by the dispatcher when the port setting
// changes, compared by the supervisor every 3 seconds.
extern std::atomic<int> HTTP_WEB_PORT;
// Listening ids of the web layer (-1: none).
extern std::atomic<int> listen_http_sid_ipv4;
extern std::atomic<int> listen_https_sid_ipv4;
