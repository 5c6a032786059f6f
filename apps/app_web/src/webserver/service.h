// Process-wide values of the service host, shared by the main thread (start, supervisor,
// stop) and the web server thread, and the start and stop of the web server thread.
#pragma once

#include <atomic>
#include <pthread.h>

// The https port of the start-up parameters: range-checked with the http port, never
// listened on (the server speaks plain HTTP).
constexpr int WEB_HTTPS_PORT_DEFAULT = 443;

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
// The current web server thread.
extern pthread_t pid;

// Starts the web server thread on params: 0; -2 for a port of 65536 or more (or negative);
// -14 while a web server thread runs; -6 when the thread cannot be created.
int web_service_start(WebParams *params);
// Stops the running web server thread (flag, listening sockets shut down, join); always 0.
int web_service_stop();
// One turn of the port supervisor: prints the status line and, when HTTP_WEB_PORT differs
// from the port in use, stops the server, waits a second and starts it on the new port.
void supervise_once(WebParams *params);
// Seconds between two supervisor turns.
constexpr unsigned kSuperviseIntervalSeconds = 3;

// A command-line number read the way atoi reads it: leading blanks, a sign, digits up to
// the first other character; no digits give 0, values beyond int are clamped.
int http_port_from_text(const char *text);

// Body of the web server thread: configures the web layer, listens and serves until
// finished is set. Its argument is the WebParams record.
void *webservice_routine(void *arg);
