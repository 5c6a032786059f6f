// The Host and Origin checks. A Host that passes names this device; an Origin that passes
// names the same host and port as the Host.
#include "fuzz_target.h"
#include "webs/webs_guard.h"

#include <string>

namespace {

std::string lower(std::string_view s)
{
    std::string out(s);
    for (char &c : out)
        c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    return out;
}

void run(const uint8_t *data, size_t size)
{
    // Host, Origin and the device's name, NUL-free as header values are.
    std::vector<std::string_view> parts = fuzz_split(data, size, '\n', 3);
    for (std::string_view p : parts)
        if (p.find('\0') != std::string_view::npos)
            return;
    std::string host(parts[0]), origin(parts.size() > 1 ? parts[1] : ""), device(parts.size() > 2 ? parts[2] : "cam");
    bool host_ok = webs::host_allowed(host.c_str(), device);
    if (host_ok) {
        // Nothing in an allowed Host can name another machine by DNS: it is a literal, or one
        // of the device's own names (ending, before any port, in one of them).
        std::string h = lower(host);
        FUZZ_CHECK(h.find('@') == std::string::npos && h.find('/') == std::string::npos, "no userinfo or path");
        bool literal = h.find_first_not_of(" \t0123456789.:[]abcdef") == std::string::npos;
        std::string name = lower(device);
        if (!name.empty() && name.back() == '.')
            name.pop_back();  // the device's name may be given with its trailing dot
        bool named = h.find("localhost") != std::string::npos || h.find(name) != std::string::npos;
        FUZZ_CHECK(literal || named, "a literal or one of the device's names");
    }
    if (webs::origin_allowed(origin.c_str(), host.c_str())) {
        std::string o = lower(origin);
        FUZZ_CHECK(o.find("http://") != std::string::npos || o.find("https://") != std::string::npos, "an http origin");
        FUZZ_CHECK(o.find('@') == std::string::npos && o.find('/', o.find("//") + 2) == std::string::npos,
                   "no userinfo or path");
    }
    FUZZ_CHECK(webs::origin_allowed(nullptr, host.c_str()) && webs::host_allowed(nullptr, device), "absent passes");
}

} // namespace

FUZZ_TARGET("host_origin", nullptr, run);
