#include "c2json/json_layout.h"

#include "common/owners.h"

#include <cjson/cJSON.h>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

JsonLayout::JsonLayout(size_t expected) : text_(expected + 1)
{
    if (!text_.reserve_more(expected))
        failed_ = true;
}

void JsonLayout::fail()
{
    failed_ = true;
    text_ = GrowingBuffer();
}

// Room for more bytes and the terminator at the end of the text; nullptr after a failure.
char *JsonLayout::room(size_t more)
{
    if (failed_)
        return nullptr;
    if (!text_.reserve_more(more)) {
        fail();
        return nullptr;
    }
    return text_.end();
}

bool JsonLayout::first_in_level()
{
    if (has_values_.empty())
        return true;
    bool first = !has_values_.back();
    has_values_.back() = true;
    return first;
}

void JsonLayout::begin_object()
{
    raw("{");
    has_values_.push_back(false);
}

void JsonLayout::key(std::string_view name)
{
    bool first = first_in_level();
    size_t depth = has_values_.size();
    // "," after the previous member, the line break, one tab per level.
    if (char *p = room(2 + depth)) {
        char *start = p;
        if (!first)
            *p++ = ',';
        *p++ = '\n';
        for (size_t i = 0; i < depth; ++i)
            *p++ = '\t';
        text_.grow_used(static_cast<size_t>(p - start));
    }
    string(name);
    raw(":\t");
}

void JsonLayout::end_object()
{
    has_values_.pop_back();
    size_t depth = has_values_.size();
    if (char *p = room(2 + depth)) {
        char *start = p;
        *p++ = '\n';
        for (size_t i = 0; i < depth; ++i)
            *p++ = '\t';
        *p++ = '}';
        text_.grow_used(static_cast<size_t>(p - start));
    }
}

void JsonLayout::begin_array()
{
    raw("[");
    has_values_.push_back(false);
}

void JsonLayout::element()
{
    if (!first_in_level())
        raw(", ");
}

void JsonLayout::end_array()
{
    has_values_.pop_back();
    raw("]");
}

void JsonLayout::raw(std::string_view text)
{
    if (char *p = room(text.size())) {
        memcpy(p, text.data(), text.size());
        text_.grow_used(text.size());
    }
}

void JsonLayout::string(std::string_view text)
{
    // The escaped text is at most six bytes per byte, plus the quotes.
    char *p = room(text.size() * 6 + 2);
    if (!p)
        return;
    char *start = p;
    *p++ = '"';
    for (unsigned char c : text) {
        if (c > 31 && c != '"' && c != '\\') {
            *p++ = static_cast<char>(c);
            continue;
        }
        *p++ = '\\';
        switch (c) {
        case '"': *p++ = '"'; break;
        case '\\': *p++ = '\\'; break;
        case '\b': *p++ = 'b'; break;
        case '\f': *p++ = 'f'; break;
        case '\n': *p++ = 'n'; break;
        case '\r': *p++ = 'r'; break;
        case '\t': *p++ = 't'; break;
        default:
            static const char kHex[] = "0123456789abcdef";
            memcpy(p, "u00", 3);
            p[3] = kHex[c >> 4];
            p[4] = kHex[c & 15];
            p += 5;
        }
    }
    *p++ = '"';
    text_.grow_used(static_cast<size_t>(p - start));
}

void JsonLayout::number(double value)
{
    // Minus zero is no integer to cJSON's printer: it prints "-0".
    if (value >= INT_MIN && value <= INT_MAX && value == static_cast<double>(static_cast<int>(value)) &&
        !(value == 0 && std::signbit(value))) {
        char digits[16];
        char *end = digits + sizeof digits;
        char *p = end;
        long v = static_cast<long>(value);
        unsigned long u = v < 0 ? 0UL - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
        do {
            *--p = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u);
        if (v < 0)
            *--p = '-';
        raw(std::string_view(p, static_cast<size_t>(end - p)));
        return;
    }
    // Rare (files of 2 GiB and more): cJSON's own rules for precision and special values.
    CJsonPtr item(cJSON_CreateNumber(value));
    HeapText printed(item ? cJSON_PrintUnformatted(item.get()) : nullptr);
    if (!printed) {
        fail();
        return;
    }
    raw(printed.get());
}

char *JsonLayout::release()
{
    if (failed_ || !room(0))
        return nullptr;
    text_.shrink_to_fit();
    return text_.release();
}

namespace {

// cJSON prints a formatted object's last member just before its closing "\n}": the
// envelope is printed with a one-character raw placeholder there, and raw takes its place.
constexpr char kPlaceholder[] = "0";
constexpr char kClosing[] = "\n}";

} // namespace

char *json_print_with_raw(cJSON *object, const char *key, char *raw)
{
    HeapText payload(raw);
    if (!payload || !object || !cJSON_AddRawToObject(object, key, kPlaceholder))
        return nullptr;
    HeapText frame(cJSON_Print(object));
    if (!frame)
        return nullptr;
    size_t frame_len = strlen(frame.get());
    size_t head_len = frame_len - (sizeof kPlaceholder - 1) - (sizeof kClosing - 1);
    size_t payload_len = strlen(payload.get());
    char *text = static_cast<char *>(realloc(payload.get(), head_len + payload_len + sizeof kClosing));
    if (!text)
        return nullptr;
    (void)payload.release();  // realloc took the block
    memmove(text + head_len, text, payload_len);
    memcpy(text, frame.get(), head_len);
    memcpy(text + head_len + payload_len, kClosing, sizeof kClosing);
    return text;
}
