// Request body of "set_Language_Format": {"language": "chinese" | "english", "mode": number}.
#pragma once

#include "common/language_format.h"

// Fills lang from text (index_page is always "login.html"). 0; -2 for a missing argument,
// a missing or mistyped member or an unknown language; -15 when text is not JSON.
int getLanguageFormatFromJSON(const char *text, LanguageFormat *lang);
