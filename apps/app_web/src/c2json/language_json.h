// The "Parameters" of the "get_Language_Format" reply.
#pragma once

#include "common/language_format.h"

// {"language": lang->language, "mode": lang->mode} as a heap text in *out (the caller
// frees it). 0; -2 for a missing argument; -15 when the object cannot be made.
int formatLanguageParamJSON(char **out, const LanguageFormat *lang);
