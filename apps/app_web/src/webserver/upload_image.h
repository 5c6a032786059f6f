// The watermark image upload: one picture, checked for caller, name, size, type and
// dimensions, stored as the only image of the watermark directory. A refused or failed
// upload leaves the directory as it was: the new image is written beside the old ones and
// renamed into place, and only then are the other files removed.
#pragma once

#include <cstddef>

struct Webs;
struct RequestQuery;

constexpr const char WATERMARK_DIR[] = "/mnt/app/web_root/images/watermark/";
// Longest file name in the query, before decoding (255 or more is refused).
constexpr size_t WATERMARK_NAME_MAX = 254;

// Reads width and height from a PNG file's header. 0, or -1 when it cannot be opened, -2
// when its first four signature bytes are wrong, -3 when the last four are.
int GetPNGWidthHeight(const char *path, int *width, int *height);

// Copies from into to (created or truncated, never through a link) in 1024-byte blocks and
// flushes it to the disk. 0, or -1 after its error lines; a copy cut short is removed.
int copyFile(const char *from, const char *to);

// The caller check, made before any byte of the picture is taken in: a live session (which
// it refreshes), or user name and password checked against the account store. False after
// writing the refusal; a refused caller changes nothing.
bool caller_allowed(Webs *wp, const RequestQuery &q);

// The stored name of an upload: the query's fileName, percent-decoded into name (size bytes,
// at least WATERMARK_NAME_MAX + 1). 0; -1 when the encoded name is longer than
// WATERMARK_NAME_MAX; -2 when the decoded name is no plain file name of the directory
// (empty, ".", "..", or holding "/" or a NUL byte).
int watermark_name(const char *encoded, char *name, size_t size);

// Whether name ends in an extension of the content type (".jpg" or ".jpeg" for image/jpeg,
// ".png" for image/png, ".bmp" for image/bmp, in any letter case) and the picture's first
// bytes (head, len of them) are those of its format; a PNG's signature is checked later,
// with its own replies. False for any other content type.
bool watermark_type_fits(const char *name, const char *content_type, const unsigned char *head, size_t len);

// Runs the rest of the upload once the picture is in (it may wait on the card) and writes
// its reply.
void http_upload_image(Webs *wp, const RequestQuery &query);
