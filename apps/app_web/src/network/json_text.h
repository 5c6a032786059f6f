// A JSON text written straight into one growing heap buffer, spelled exactly as cJSON's
// printer spells strings and numbers, so that a large document needs no cJSON tree.
#pragma once

#include "common/growing_buffer.h"

#include <cstddef>
#include <string_view>

class JsonTextBuffer {
public:
    // Takes room for about expected bytes; failed() when even that cannot be had.
    explicit JsonTextBuffer(size_t expected);

    void raw(std::string_view text);
    // A quoted string with cJSON's escapes: \" \\ \b \f \n \r \t, \u00XX for the other
    // control characters, every other byte as it is.
    void string(std::string_view text);
    // A number as cJSON prints it: an integral value in int range as an integer, anything
    // else by cJSON itself.
    void number(double value);

    // True once any step ran out of memory; the text is then lost.
    bool failed() const { return failed_; }
    // The finished, terminated text trimmed to its size, or nullptr after a failure.
    char *release();

private:
    char *room(size_t more);
    void fail();

    GrowingBuffer text_;
    bool failed_ = false;
};
