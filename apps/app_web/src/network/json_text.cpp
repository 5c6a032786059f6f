#include "network/json_text.h"

#include <cjson/cJSON.h>
#include <climits>
#include <cstring>

JsonTextBuffer::JsonTextBuffer(size_t expected) : text_(expected + 1)
{
    if (!text_.reserve_more(expected))
        failed_ = true;
}

void JsonTextBuffer::fail()
{
    failed_ = true;
    text_ = GrowingBuffer();
}

// Room for more bytes and the terminator at the end of the text; nullptr after a failure.
char *JsonTextBuffer::room(size_t more)
{
    if (failed_)
        return nullptr;
    if (!text_.reserve_more(more)) {
        fail();
        return nullptr;
    }
    return text_.end();
}

void JsonTextBuffer::raw(std::string_view text)
{
    if (char *p = room(text.size())) {
        memcpy(p, text.data(), text.size());
        text_.grow_used(text.size());
    }
}

void JsonTextBuffer::string(std::string_view text)
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

void JsonTextBuffer::number(double value)
{
    if (value >= INT_MIN && value <= INT_MAX && value == static_cast<double>(static_cast<int>(value))) {
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

char *JsonTextBuffer::release()
{
    if (failed_ || !room(0))
        return nullptr;
    text_.shrink_to_fit();
    return text_.release();
}
