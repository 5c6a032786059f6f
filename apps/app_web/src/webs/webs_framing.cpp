#include "webs/webs_framing.h"

#include "webs/webs_guard.h"

#include <strings.h>

namespace webs {

namespace {

// RFC 9110 5.6.2: a field name is a token.
bool is_token(std::string_view name)
{
    if (name.empty())
        return false;
    for (char c : name) {
        bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alnum && std::string_view("!#$%&'*+-.^_`|~").find(c) == std::string_view::npos)
            return false;
    }
    return true;
}

// A control character other than HTAB; a bare CR is one.
bool has_control(std::string_view value)
{
    for (char c : value) {
        auto u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\t') || u == 0x7f)
            return true;
    }
    return false;
}

bool named(const HeaderField &f, std::string_view name)
{
    return f.name.size() == name.size() && strncasecmp(f.name.data(), name.data(), name.size()) == 0;
}

MHD_Result collect(void *cls, MHD_ValueKind, const char *key, size_t key_size, const char *value,
                   size_t value_size)
{
    static_cast<std::vector<HeaderField> *>(cls)->push_back(
        {std::string_view(key, key_size), value ? std::string_view(value, value_size) : std::string_view()});
    return MHD_YES;
}

} // namespace

const char *framing_fault(std::span<const HeaderField> fields, bool http11)
{
    const HeaderField *length = nullptr, *coding = nullptr, *host = nullptr;
    for (const HeaderField &f : fields) {
        if (!is_token(f.name))
            return "header field name is no token";
        if (has_control(f.value))
            return "control character in a header field";
        if (named(f, "Content-Length")) {
            if (length && trim_ows(length->value) != trim_ows(f.value))
                return "differing Content-Length fields";
            length = &f;
        } else if (named(f, "Transfer-Encoding")) {
            if (coding)
                return "Transfer-Encoding given twice";
            coding = &f;
        } else if (named(f, "Host")) {
            if (host)
                return "Host given twice";
            host = &f;
        }
    }
    if (http11 && !host)
        return "HTTP/1.1 request without Host";
    if (coding && length)
        return "Content-Length together with Transfer-Encoding";
    std::string_view c = coding ? trim_ows(coding->value) : "chunked";
    if (c.size() != 7 || strncasecmp(c.data(), "chunked", 7) != 0)
        return "Transfer-Encoding other than chunked";
    return nullptr;
}

std::vector<HeaderField> request_header_fields(MHD_Connection *connection)
{
    std::vector<HeaderField> fields;
    MHD_get_connection_values_n(connection, MHD_HEADER_KIND, collect, &fields);
    return fields;
}

} // namespace webs
