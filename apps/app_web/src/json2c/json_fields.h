// The members of a JSON request body, described once: json_read_fields checks them in the
// order given and writes the system's error lines in the caller's name, so every parser
// refuses the same way.
#pragma once

#include "common/log.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <cstddef>

struct JsonField {
    enum Kind { Int, Text };
    const char *name;
    Kind kind;
    void *out;                              // int* or char*
    size_t size = 0;                        // Text: room in out, terminator included; longer texts are cut
    bool allow_empty = true;                // Text: whether "" is accepted
    bool ranged = false;                    // Int: value must lie in [min, max], compared as unsigned
    unsigned min = 0, max = 0;
    const char *refusal = nullptr;          // error line for an out-of-range or unaccepted value
    const char *const *accepted = nullptr;  // Text: the accepted values, nullptr-terminated
};

// A number member (true counts as 1); its integer value is stored.
constexpr JsonField json_int(const char *name, int *out)
{
    return JsonField{name, JsonField::Int, out};
}

// A number member whose value must lie in [min, max] as an unsigned number (so a negative
// value never passes); refusal is the error line for a value outside.
constexpr JsonField json_int_in(const char *name, int *out, unsigned min, unsigned max, const char *refusal)
{
    return JsonField{name, JsonField::Int, out, 0, true, true, min, max, refusal};
}

// A string member copied into out (size bytes with the terminator; longer texts are cut).
constexpr JsonField json_text(const char *name, char *out, size_t size, bool allow_empty = true)
{
    return JsonField{name, JsonField::Text, out, size, allow_empty};
}

// A string member that must equal one of accepted (exactly); refusal is the error line otherwise.
constexpr JsonField json_text_one_of(const char *name, char *out, size_t size, const char *const *accepted,
                                     const char *refusal)
{
    return JsonField{name, JsonField::Text, out, size, true, false, 0, 0, refusal, accepted};
}

// The integer value of a numeric item: a number's integer value, or 1 for true.
bool json_int_value(const cJSON *item, int *value);

// Checks and stores the fields of object in order. 0, or -2 after the error line of the
// first failing field: "%s is empty or error value type : %d\n" with its name and cJSON type
// code (-1 when missing), or the field's refusal line.
int json_read_fields(const cJSON *object, const JsonField *fields, size_t count, const LogSite &site);

template <size_t N>
int json_read_fields(const cJSON *object, const JsonField (&fields)[N], const LogSite &site)
{
    return json_read_fields(object, fields, N, site);
}

// Parses text into *tree; -15 after "json pack into cjson error...\n" when it is not JSON.
int json_parse_text(const char *text, CJsonPtr *tree, const LogSite &site);

// json_parse_text, then json_read_fields on the top object: 0, -2 or -15. tree, when given,
// keeps the parsed tree for members read by hand.
int json_parse_fields(const char *text, const JsonField *fields, size_t count, const LogSite &site,
                      CJsonPtr *tree = nullptr);

template <size_t N>
int json_parse_fields(const char *text, const JsonField (&fields)[N], const LogSite &site, CJsonPtr *tree = nullptr)
{
    return json_parse_fields(text, fields, N, site, tree);
}
