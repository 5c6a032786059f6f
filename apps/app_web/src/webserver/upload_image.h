// The watermark image upload: one picture, checked for caller, name, size, type and
// dimensions, stored as the only image of the watermark directory.
#pragma once

struct Webs;
struct RequestQuery;

constexpr const char WATERMARK_DIR[] = "/mnt/app/web_root/images/watermark/";

// Reads width and height from a PNG file's header. 0, or -1 when it cannot be opened, -2
// when its first four signature bytes are wrong, -3 when the last four are.
int GetPNGWidthHeight(const char *path, int *width, int *height);

// Copies from into to in 1024-byte blocks. 0, or -1 after its error lines.
int copyFile(const char *from, const char *to);

// The caller check, made before any byte of the picture is taken in: a live session (which
// it refreshes), or user name and password checked against the account store. False after
// writing the refusal.
bool caller_allowed(Webs *wp, const RequestQuery &q);

// Runs the rest of the upload once the picture is in (it may wait on the card) and writes
// its reply.
void http_upload_image(Webs *wp, const RequestQuery &query);
