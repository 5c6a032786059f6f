#include "webs/webs_guard.h"

#include "webs/webs_limits.h"

#include <arpa/inet.h>
#include <optional>
#include <string>

namespace webs {

std::string_view trim_ows(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

namespace {

// The ports a URL without one means (RFC 9110 4.2).
constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;
constexpr std::string_view kLocalhost = "localhost";
constexpr std::string_view kLocalSuffix = ".local";

enum class HostKind { Ipv4, Ipv6, Name };

// host[:port] of a Host header or an origin, normalised for comparison: names in lower case
// without their trailing dot, IPv6 in its canonical text.
struct Authority {
    HostKind kind;
    std::string host;
    int port;
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool is_name_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
}

// A port: decimal digits, none meaning the default (RFC 3986 allows the empty port).
std::optional<int> parse_port(std::string_view text, int default_port)
{
    if (text.empty())
        return default_port;
    if (text.size() > 5)
        return std::nullopt;
    int port = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        port = port * 10 + (c - '0');
    }
    if (port > webs_limits::kMaxTcpPort)
        return std::nullopt;
    return port;
}

// A DNS name: labels of letters, digits, "-" and "_", with at most one trailing dot, which
// names the same host and is dropped.
std::optional<std::string> normal_name(std::string_view text)
{
    if (!text.empty() && text.back() == '.')
        text.remove_suffix(1);
    if (text.empty() || text.front() == '.' || text.back() == '.' || text.find("..") != std::string_view::npos)
        return std::nullopt;
    std::string name;
    for (char c : text) {
        if (!is_name_char(c))
            return std::nullopt;
        name += lower(c);
    }
    return name;
}

std::optional<Authority> parse_authority(std::string_view text, int default_port)
{
    std::string_view host, port;
    if (!text.empty() && text.front() == '[') {
        size_t close = text.find(']');
        if (close == std::string_view::npos)
            return std::nullopt;
        host = text.substr(1, close - 1);
        std::string_view rest = text.substr(close + 1);
        if (!rest.empty() && rest.front() != ':')
            return std::nullopt;
        port = rest.empty() ? rest : rest.substr(1);
        // inet_pton takes no zone index ("%eth0"), which browsers never send in Host.
        in6_addr v6;
        char canonical[INET6_ADDRSTRLEN];
        std::string literal(host);
        if (inet_pton(AF_INET6, literal.c_str(), &v6) != 1 || !inet_ntop(AF_INET6, &v6, canonical, sizeof canonical))
            return std::nullopt;
        std::optional<int> p = parse_port(port, default_port);
        if (!p)
            return std::nullopt;
        return Authority{HostKind::Ipv6, canonical, *p};
    }
    size_t colon = text.find(':');
    host = text.substr(0, colon);
    port = colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
    std::optional<int> p = parse_port(port, default_port);
    if (!p)
        return std::nullopt;
    std::string literal(host);
    in_addr v4;
    if (inet_pton(AF_INET, literal.c_str(), &v4) == 1)
        return Authority{HostKind::Ipv4, literal, *p};
    // A dotted number that is no IPv4 literal ("1.2.3.4.", "1.2.3", "01.2.3.4") is not
    // taken as a name either: browsers never send one.
    if (host.find_first_not_of("0123456789.") == std::string_view::npos)
        return std::nullopt;
    std::optional<std::string> name = normal_name(host);
    if (!name)
        return std::nullopt;
    return Authority{HostKind::Name, *name, *p};
}

bool names_device(const std::string &name, std::string_view device_name)
{
    std::optional<std::string> device = normal_name(device_name);
    if (!device)
        return false;
    std::string_view n(name);
    if (n.size() > kLocalSuffix.size() && n.substr(n.size() - kLocalSuffix.size()) == kLocalSuffix)
        n.remove_suffix(kLocalSuffix.size());
    return n == *device;
}

} // namespace

bool host_allowed(const char *host, std::string_view device_name)
{
    if (!host)
        return true;
    std::optional<Authority> a = parse_authority(trim_ows(host), kHttpPort);
    if (!a)
        return false;
    return a->kind != HostKind::Name || a->host == kLocalhost || names_device(a->host, device_name);
}

bool origin_allowed(const char *origin, const char *host)
{
    if (!origin)
        return true;
    std::string_view text = trim_ows(origin);
    int default_port;
    auto has_scheme = [&](std::string_view scheme) {
        if (text.size() < scheme.size())
            return false;
        for (size_t i = 0; i < scheme.size(); ++i)
            if (lower(text[i]) != scheme[i])
                return false;
        text.remove_prefix(scheme.size());
        return true;
    };
    if (has_scheme("http://"))
        default_port = kHttpPort;
    else if (has_scheme("https://"))
        default_port = kHttpsPort;
    else
        return false;  // "null", other schemes, several origins
    std::optional<Authority> from = parse_authority(text, default_port);
    std::optional<Authority> to = host ? parse_authority(trim_ows(host), kHttpPort) : std::nullopt;
    return from && to && from->kind == to->kind && from->host == to->host && from->port == to->port;
}

} // namespace webs
