// Message exchange with the device applications: finds the receiver that the routing table
// names for a command, connects to it, sends the request message, waits for the reply with
// the command's time-out and hands back the reply's "Response" text. Runs on the web server
// thread only, one exchange at a time, so the table's msg_fd fields need no lock.
//
// Calling order for one relayed command: http_capability_protocol_matching; when it answers
// 0, http_protocol_matching; when that answers 1, http_send_and_recv_app_codec with the
// route socket and receiver name it gave; then http_msg_socket_uninit with the route index.
#pragma once

#include <cstddef>

// Socket of the current exchange when its peer is the upgrade application, else -1.
extern int http_msg_upgrade_fd;

constexpr int HTTP_MSG_SEND_TIMEOUT_MS = 100;  // a local peer takes a message at once or not at all

// 1 with the command's capability file path copied into cap_path (128 bytes) when a
// "device_cap" receiver lists the command; else 0.
int http_capability_protocol_matching(const char *command, char *cap_path);

// Looks up the receivers of command (entries with an IPC address, "device_cap" excluded).
// A command listed for several receivers is delivered to all but the last one here, their
// replies discarded (payload is the message for those deliveries). 1 with the last
// receiver's open socket in *msg_fd, its name in receiver_name (32 bytes) and its table
// index in *index; 0 when there is no route or its connection could not be opened.
int http_protocol_matching(const char *command, int *msg_fd, char *receiver_name, int *index, const char *payload);

// Sends the request message for command and receives its reply on msg_fd. 0 with *reply the
// printed "Response" (a heap text the caller frees); else 504, 508 or 550 with the reason
// written into reason (128 bytes).
int http_send_and_recv_app_codec(const char *command, char *reason, const char *payload, char **reply, int msg_fd,
                                 const char *receiver_name);

// Sends len bytes of text as one message; the count nn_send returns (negative on failure).
int http_msg_socket_send(const char *text, size_t len, int msg_fd);

// Receives and checks the reply to command, following upgrade progress replies on
// http_msg_upgrade_fd. 0 with *reply set; else 504, 508 or 550 with the reason written.
int http_msg_socket_recv(char **reply, char *reason, const char *command, int msg_fd);

// Receive time-out in milliseconds for command on msg_fd.
int http_msg_recv_timeout(const char *command, int msg_fd);

// Closes the socket of the route at index where one was opened; always 0.
int http_msg_socket_uninit(int index);
