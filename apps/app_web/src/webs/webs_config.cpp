// The route file and the authentication file: one record per line, "kind key=value ...".
//
//   route uri=/action handler=action methods=GET|POST
//   route uri=/config handler=file methods=
//   user name=admin password=... roles=administrator
//   role name=administrator abilities=manage
//
// Blank lines and lines starting with '#' are skipped; unknown keys are ignored so that
// files written for a richer server still load; an unknown kind of line fails the load.
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs_internal.h"
#include "webs/webs_limits.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

namespace webs {

namespace {

struct ConfigLine {
    std::string kind;
    std::map<std::string, std::string, std::less<>> keys;
};

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
        s.remove_suffix(1);
    return s;
}

// Splits a line into its kind and key=value words; false for a word without '='.
bool split_line(std::string_view text, ConfigLine *line)
{
    bool first = true;
    while (!(text = trim(text)).empty()) {
        size_t end = text.find_first_of(" \t");
        std::string_view word = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end);
        if (first) {
            line->kind = word;
            first = false;
            continue;
        }
        size_t eq = word.find('=');
        if (eq == std::string_view::npos || eq == 0)
            return false;
        line->keys[std::string(word.substr(0, eq))] = std::string(word.substr(eq + 1));
    }
    return true;
}

// Calls take(line) for every record line of the file; -1 when the file cannot be read or
// take refuses a line.
int read_config(const char *path, const std::function<bool(const ConfigLine &)> &take)
{
    FilePtr file(path ? fopen(path, "re") : nullptr);
    if (!file) {
        HTTP_ERROR("cannot open %s: %s\n", path ? path : "(null)", strerror(errno));
        return -1;
    }
    char buf[webs_limits::kMaxConfigLine + 2];
    int number = 0;
    while (fgets(buf, sizeof buf, file.get())) {
        ++number;
        size_t len = strlen(buf);
        if (len > webs_limits::kMaxConfigLine && buf[len - 1] != '\n') {
            HTTP_ERROR("%s:%d: line too long\n", path, number);
            return -1;
        }
        std::string_view text = trim(std::string_view(buf, len));
        if (text.empty() || text.front() == '#')
            continue;
        ConfigLine line;
        if (!split_line(text, &line)) {
            HTTP_ERROR("%s:%d: expected key=value words\n", path, number);
            return -1;
        }
        if (!take(line)) {
            HTTP_ERROR("%s:%d: invalid %s line\n", path, number, line.kind.c_str());
            return -1;
        }
    }
    return 0;
}

const std::string *find_key(const ConfigLine &line, std::string_view key)
{
    auto it = line.keys.find(key);
    return it == line.keys.end() ? nullptr : &it->second;
}

bool is_method_token(std::string_view m)
{
    if (m.empty())
        return false;
    for (char c : m)
        if (c < 'A' || c > 'Z')
            return false;
    return true;
}

bool parse_route(const ConfigLine &line, Route *route)
{
    const std::string *uri = find_key(line, "uri");
    const std::string *handler = find_key(line, "handler");
    if (!uri || uri->empty() || uri->front() != '/' || !handler)
        return false;
    if (*handler == "action")
        route->handler = Handler::Action;
    else if (*handler == "file")
        route->handler = Handler::File;
    else
        return false;
    route->prefix = *uri;
    // A prefix "/x/" covers the same paths as "/x".
    while (route->prefix.size() > 1 && route->prefix.back() == '/')
        route->prefix.pop_back();

    const std::string *methods = find_key(line, "methods");
    std::string list = methods ? *methods : (route->handler == Handler::File ? "GET|HEAD" : "GET|POST");
    std::string_view rest = list;
    while (!rest.empty()) {
        size_t sep = rest.find_first_of("|,");
        std::string_view m = rest.substr(0, sep);
        rest.remove_prefix(sep == std::string_view::npos ? rest.size() : sep + 1);
        if (!is_method_token(m))
            return false;
        route->methods.emplace_back(m);
        if (!route->allow.empty())
            route->allow += ", ";
        route->allow += m;
    }
    return true;
}

}  // namespace

int load_routes(const char *path, std::vector<Route> *routes)
{
    std::vector<Route> parsed;
    int rc = read_config(path, [&](const ConfigLine &line) {
        Route route;
        if (line.kind != "route" || !parse_route(line, &route))
            return false;
        parsed.push_back(std::move(route));
        return true;
    });
    if (rc == 0)
        *routes = std::move(parsed);
    return rc;
}

int check_auth(const char *path)
{
    return read_config(path, [](const ConfigLine &line) {
        const std::string *name = find_key(line, "name");
        return name && !name->empty() && (line.kind == "user" || line.kind == "role");
    });
}

const Route *match_route(const std::vector<Route> &routes, std::string_view path)
{
    for (const Route &route : routes) {
        const std::string &p = route.prefix;
        if (p == "/")
            return &route;
        // Whole segments only: "/action" covers "/action" and "/action/x", not "/actions".
        if (path.substr(0, p.size()) == p && (path.size() == p.size() || path[p.size()] == '/'))
            return &route;
    }
    return nullptr;
}

bool route_allows(const Route &route, const char *method)
{
    for (const std::string &m : route.methods)
        if (m == method)
            return true;
    return false;
}

}  // namespace webs
