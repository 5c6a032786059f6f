// The framing check over a request's header fields. Fields whose name is no token, or whose
// value holds a control character, never pass, and neither do two Content-Lengths that differ.
#include "fuzz_target.h"
#include "webs/webs_framing.h"

#include <strings.h>

namespace {

void run(const uint8_t *data, size_t size)
{
    if (size == 0)
        return;
    bool http11 = data[0] & 1;
    std::vector<webs::HeaderField> fields;
    for (std::string_view line : fuzz_split(data + 1, size - 1, '\n', 64)) {
        size_t colon = line.find(':');
        fields.push_back({line.substr(0, colon), colon == std::string_view::npos ? "" : line.substr(colon + 1)});
    }
    const char *fault = webs::framing_fault(fields, http11);
    if (fault)
        return;
    std::string_view length;
    bool host = false;
    for (const webs::HeaderField &f : fields) {
        FUZZ_CHECK(!f.name.empty() && f.name.find_first_of(" \t\r:\"(),/;<=>?@[\\]{}") == std::string_view::npos,
                   "names are tokens");
        for (char c : f.value)
            FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 || c == '\t', "no control characters");
        if (f.name.size() == 14 && strncasecmp(f.name.data(), "Content-Length", 14) == 0) {
            std::string_view v = f.value;
            while (!v.empty() && (v.front() == ' ' || v.front() == '\t'))
                v.remove_prefix(1);
            while (!v.empty() && (v.back() == ' ' || v.back() == '\t'))
                v.remove_suffix(1);
            FUZZ_CHECK(length.data() == nullptr || length == v, "one length");
            length = v;
        }
        host = host || (f.name.size() == 4 && strncasecmp(f.name.data(), "Host", 4) == 0);
    }
    FUZZ_CHECK(host || !http11, "HTTP/1.1 names its Host");
}

} // namespace

FUZZ_TARGET("framing", nullptr, run);
