#include "network/json_text.h"

#include <cjson/cJSON.h>
#include <climits>
#include <cstdlib>
#include <cstring>

JsonTextBuffer::JsonTextBuffer(size_t expected)
{
    capacity_ = expected + 1;
    data_.reset(static_cast<char *>(malloc(capacity_)));
    if (!data_) {
        capacity_ = 0;
        failed_ = true;
    }
}

// Room for more bytes and the terminator at the end of the text; nullptr after a failure.
char *JsonTextBuffer::room(size_t more)
{
    if (failed_)
        return nullptr;
    size_t need = used_ + more + 1;
    if (need > capacity_) {
        size_t capacity = capacity_ * 2 > need ? capacity_ * 2 : need;
        char *grown = static_cast<char *>(realloc(data_.get(), capacity));
        if (!grown) {
            failed_ = true;
            data_.reset();
            return nullptr;
        }
        (void)data_.release();
        data_.reset(grown);
        capacity_ = capacity;
    }
    return data_.get() + used_;
}

void JsonTextBuffer::raw(std::string_view text)
{
    if (char *p = room(text.size())) {
        memcpy(p, text.data(), text.size());
        used_ += text.size();
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
    used_ += static_cast<size_t>(p - start);
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
        failed_ = true;
        data_.reset();
        return;
    }
    raw(printed.get());
}

char *JsonTextBuffer::release()
{
    if (failed_ || !room(0))
        return nullptr;
    data_.get()[used_] = '\0';
    // Give back the unused room; a failed shrink leaves the text where it is.
    if (char *fitted = static_cast<char *>(realloc(data_.get(), used_ + 1))) {
        (void)data_.release();
        data_.reset(fitted);
    }
    capacity_ = used_ = 0;
    return data_.release();
}
