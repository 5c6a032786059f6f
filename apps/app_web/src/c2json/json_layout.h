// How cJSON's formatted printer (cJSON_Print) lays a document out, in one place, for the
// texts this server writes without printing a cJSON tree: the card listing (a tree of every
// file would cost several times its text), a reply around a payload that is printed already,
// and the replies that must go out when the heap cannot hold a tree. The oracle test
// (tests/unit/json_layout_test.cpp) holds every piece against cJSON's own print.
//
// The layout: an object opens with "{"; each member starts on a new line, indented by one tab
// per level of nesting, as "\"key\":\t" and its value, with a "," before the next member's
// line break; the closing "}" stands on a line of its own, indented like the object's parent.
// An array holds its values on one line, "[" values separated by ", " "]". Strings use
// cJSON's escapes; integral numbers in int range print as integers (minus zero as "-0").
#pragma once

#include "common/growing_buffer.h"

#include <cstddef>
#include <string_view>
#include <vector>

struct cJSON;

// {"Result": "OK"}: it never varies, so it is never built.
constexpr char JSON_LAYOUT_OK[] = "{\n\t\"Result\":\t\"OK\"\n}";
// {"Result": "Fail", "ErrorNo": code, "Reason": ""} with the code for "%d": the coded failure
// when the heap cannot hold its tree (the reason would need escaping and room).
constexpr char JSON_LAYOUT_CODED_FAILURE[] = "{\n\t\"Result\":\t\"Fail\",\n\t\"ErrorNo\":\t%d,\n\t\"Reason\":\t\"\"\n}";

// A JSON text written straight into one growing heap buffer, laid out as cJSON's formatted
// printer lays out the same document. Structure calls nest like the document: an object's
// members are key() and a value; an array's values each follow element().
class JsonLayout {
public:
    // Takes room for about expected bytes; failed() when even that cannot be had.
    explicit JsonLayout(size_t expected);

    void begin_object();
    // The next member of the open object: its line, indentation and key.
    void key(std::string_view name);
    void end_object();
    void begin_array();
    // The next value of the open array.
    void element();
    void end_array();

    // A quoted string with cJSON's escapes: \" \\ \b \f \n \r \t, \u00XX for the other
    // control characters, every other byte as it is.
    void string(std::string_view text);
    // A number as cJSON prints it: an integral value in int range as an integer, anything
    // else (minus zero too) by cJSON itself.
    void number(double value);
    // A printed JSON text, as it stands.
    void raw(std::string_view text);

    // True once any step ran out of memory; the text is then lost.
    bool failed() const { return failed_; }
    // The finished, terminated text trimmed to its size, or nullptr after a failure.
    char *release();

private:
    char *room(size_t more);
    void fail();
    // Before a member or an array value: whether it is the first of its container.
    bool first_in_level();

    GrowingBuffer text_;
    std::vector<bool> has_values_;  // per open container, innermost last
    bool failed_ = false;
};

// Prints object with cJSON's formatted printer, with raw (a printed JSON text) added as its
// last member under key and inserted as it stands (object keeps a placeholder member). The block of raw grows to hold the whole reply
// (realloc remaps a large block instead of copying it), so a large payload is neither copied
// into a tree nor held twice. Takes raw over and frees it on every path; nullptr when the
// reply cannot be made.
char *json_print_with_raw(cJSON *object, const char *key, char *raw);
