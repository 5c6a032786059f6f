// Fixed-size text fields of records, files and buffers: written cut and always terminated,
// read without ever running past the field.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

// Copies src into a fixed field of size bytes, cut and always terminated.
void copy_field(char *dest, size_t size, const char *src);

// The text a fixed field holds, up to its first NUL: a field filled to its last byte (a
// record from a damaged file) is read to its end and never past it.
template <size_t N>
std::string_view field_text(const char (&field)[N])
{
    return std::string_view(field, strnlen(field, N));
}
