// The firmware upgrade: the posted image is stored as "/tmp/upgrade" and announced to the
// upgrade application, whose progress replies are followed to the end.
#pragma once

struct Webs;

constexpr const char UPGRADE_IMAGE_FILE[] = "/tmp/upgrade";

// Stores the request body as the image; returns the announcement text (the caller frees
// it), or nullptr when the image could not be stored.
char *http_upgrade_save_file(Webs *wp);

// Stores the image and exchanges the announcement on the route's socket. Returns the
// exchange's result (reply text in *out, reason filled on failure), or -1 with *replied set
// after writing the 550 reply itself.
int http_upgrade_relay(Webs *wp, char **out, char *reason, int route_socket, const char *receiver, bool *replied);
