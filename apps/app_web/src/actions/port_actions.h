// "GetWebServerParameter", "SetWebServerParameter" and "GetWebServerPortStatus": the web
// server's own TCP port, kept in WEB_PORT_FILE.
#pragma once

constexpr const char WEB_PORT_FILE[] = "/mnt/usr/config/app_parameters/WebServerParameter.json";

// Ports a web server can listen on; the set and the status probe refuse anything else, so
// no request can leave the device without a web server.
constexpr int WEB_PORT_MIN = 1;
constexpr int WEB_PORT_MAX = 65535;

// Every handler stores a heap reply text in *out_json (the caller frees it).

// Reads the port file, creating it with port 80 when it is missing or empty. On success
// (0) *port is the stored port and the reply carries the file's object as it stands;
// -1 otherwise, *port untouched. in_json is not read and may be null (start-up).
int actionGetPortParam(const char *in_json, char **out_json, int *port);
// The port that the port file stores, read as actionGetPortParam reads it (the file created
// with port 80 when it is missing or empty): 0 with *port set, -1 with *port untouched.
// The process entry starts the server on it.
int web_stored_port(int *port);
// Stores the body's "Port" in the file and, on success (0), in *port; -1 otherwise,
// with the file and *port untouched.
int actionSetPortParam(const char *in_json, char **out_json, int *port);
// 0 when the body's "Port" appears nowhere in the list of listening sockets; -1 when it
// does or cannot be checked.
int actionGetPortStatus(const char *in_json, char **out_json);
