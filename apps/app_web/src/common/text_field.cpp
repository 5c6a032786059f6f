#include "common/text_field.h"

#include <cstring>

void copy_field(char *dest, size_t size, const char *src)
{
    if (size == 0)
        return;
    size_t n = strnlen(src, size - 1);
    memcpy(dest, src, n);
    dest[n] = '\0';
}
