// The last step every formatter shares: print the built object with cJSON's formatted
// printer.
#pragma once

#include "common/log.h"
#include "common/owners.h"

// Prints obj into *out (a heap text the caller frees) and releases obj. built is false when
// the object or one of its members could not be made. 0, or -15 after "Out of memory!\n",
// written in the formatter's name, with *out left empty.
int json_print_formatted(CJsonPtr obj, bool built, char **out, const LogSite &site);
