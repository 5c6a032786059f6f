// Fixed-size text fields of records, files and buffers: written cut and always terminated.
#pragma once

#include <cstddef>

// Copies src into a fixed field of size bytes, cut and always terminated.
void copy_field(char *dest, size_t size, const char *src);
