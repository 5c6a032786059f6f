// The page language record, stored byte for byte as the file language_para (260 bytes,
// little-endian). Read and recreated at web server start, read and written by the
// language actions.
#pragma once

#include <cstdint>

constexpr const char WEB_LANGUAGE_FILE[] = "/mnt/app/web_root/config/language_para";

struct LanguageFormat {
    char language[128];    // "chinese" or "english"
    int32_t mode;          // stored and returned unchanged
    char index_page[128];  // always "login.html"
};
static_assert(sizeof(LanguageFormat) == 260, "language_para is exactly 260 bytes");
