// The command routing table: which device application receives which command, at which
// IPC address, and which capability file answers which command. The main thread fills it
// once, from the routing file, before it starts the first web server thread; from then on
// only the event loop of the running web server thread uses it (it reads the entries and
// writes the msg_fd fields). A server moved to another port hands the table to its next
// thread only after the previous one has been joined, so two threads never use it at once.
#pragma once

#include <cstddef>

constexpr const char HTTP_COMMAND_FILE[] = "/mnt/app/web_root/config/command_para";

constexpr int HTTP_PROTOCOL_MAX = 16;         // receivers in the table
constexpr int HTTP_PROTOCOL_CMD_MAX = 64;     // commands per receiver
constexpr size_t HTTP_COMMAND_LINE_MAX = 255; // characters of one routing file line
constexpr size_t HTTP_RECEIVER_NAME_SIZE = 32;
constexpr size_t HTTP_COMMAND_NAME_SIZE = 64;
constexpr size_t HTTP_IPC_URL_SIZE = 256;
constexpr size_t HTTP_CAP_PATH_SIZE = 128;

// Receivers with a meaning of their own: capability commands answered from files, and the
// firmware upgrade application (pair socket, progress replies).
constexpr const char HTTP_RECEIVER_DEVICE_CAP[] = "device_cap";
constexpr const char HTTP_RECEIVER_APP_UPDATE[] = "app_update";

struct http_protocol_receiver {
    int msg_fd;  // socket of the latest exchange with this receiver (closed once it ends); 0 until
                 // the first, -1 after a failed open
    char receiver_name[HTTP_RECEIVER_NAME_SIZE];
    char command[HTTP_PROTOCOL_CMD_MAX][HTTP_COMMAND_NAME_SIZE];
    char ipc_url[HTTP_IPC_URL_SIZE];
    char cap_path[HTTP_PROTOCOL_CMD_MAX][HTTP_CAP_PATH_SIZE];  // slot k belongs to command k
};

extern http_protocol_receiver http_protocol_command[HTTP_PROTOCOL_MAX];

// Reads HTTP_COMMAND_FILE into http_protocol_command: 0, -7 when the file cannot be opened,
// -1 when a limit is exceeded (the table is then left empty).
int http_read_config_command();

// The same for a routing file at another path (the device simulator serves any file).
int http_read_routing_file(const char *path);

// Ends text in place after its last whitespace character and returns its first
// non-whitespace character (blank, \t, \r, \n, \v, \f).
char *http_strim(char *text);

// Whether an address is one the relay connects to (a nanomsg IPC address).
bool http_is_ipc_url(const char *url);
