// The watermark upload's stored name: the query's fileName percent-decoded and checked, then
// matched against the picture's type. A name that passes stays inside the watermark folder,
// and one that fits a type carries that type's extension.
#include "fuzz_target.h"
#include "webserver/upload_image.h"

#include <cstring>
#include <string>

namespace {

const char *const kTypes[] = {"image/jpeg", "image/png", "image/bmp", "image/gif", "text/html"};

void run(const uint8_t *data, size_t size)
{
    if (size < 4)
        return;
    const char *type = kTypes[data[0] % 5];
    const unsigned char *head = data + 1;
    const char *rest = reinterpret_cast<const char *>(data + 4);
    std::string encoded(rest, strnlen(rest, size - 4));
    char name[WATERMARK_NAME_MAX + 1];
    int rc = watermark_name(encoded.c_str(), name, sizeof name);
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == -2, "0, -1 or -2");
    FUZZ_CHECK((rc == -1) == (encoded.size() > WATERMARK_NAME_MAX), "only an overlong name is -1");
    if (rc != 0)
        return;
    size_t len = strlen(name);
    FUZZ_CHECK(len > 0 && len <= encoded.size(), "a decoded name is never longer");
    FUZZ_CHECK(!strchr(name, '/') && strcmp(name, ".") != 0 && strcmp(name, "..") != 0, "a plain file name");
    if (!watermark_type_fits(name, type, head, 3))
        return;
    // The static files serve a picture by its extension: it must be one of the type's.
    std::string ext = strrchr(name, '.') ? strrchr(name, '.') + 1 : "";
    for (char &c : ext)
        c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    bool fits = (strcmp(type, "image/jpeg") == 0 && (ext == "jpg" || ext == "jpeg")) ||
                (strcmp(type, "image/png") == 0 && ext == "png") || (strcmp(type, "image/bmp") == 0 && ext == "bmp");
    FUZZ_CHECK(fits, "a stored picture is named as the type it was checked for");
}

} // namespace

FUZZ_TARGET("upload_name", nullptr, run);
