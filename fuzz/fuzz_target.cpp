#include "fuzz_target.h"

#ifdef FUZZ_TARGET_NAME
#include <sanitizer/common_interface_defs.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string input_name;

std::vector<FuzzTarget> &registry()
{
    static std::vector<FuzzTarget> targets;
    return targets;
}

} // namespace

const std::vector<FuzzTarget> &fuzz_targets() { return registry(); }

const FuzzTarget *find_fuzz_target(std::string_view name)
{
    for (const FuzzTarget &t : registry())
        if (name == t.name)
            return &t;
    return nullptr;
}

FuzzRegistration::FuzzRegistration(const char *name, void (*init)(), void (*run)(const uint8_t *, size_t))
{
    registry().push_back({name, init, run});
}

void fuzz_fail(const char *file, int line, const char *cond, std::string_view what)
{
#ifdef FUZZ_TARGET_NAME
    // libFuzzer may have closed stderr for the target's own lines (-close_fd_mask); the
    // sanitizer's report channel still reaches its log.
    std::string summary = std::string("fuzz check failed: ") + cond + " (" + std::string(what) + ")";
    __sanitizer_report_error_summary(summary.c_str());
#endif
    fprintf(stderr, "\nfuzz check failed at %s:%d: %s (%.*s)%s%s\n", file, line, cond, static_cast<int>(what.size()),
            what.data(), input_name.empty() ? "" : " on input ", input_name.c_str());
    fflush(stderr);
    abort();
}

void fuzz_set_input_name(std::string_view name) { input_name = name; }

std::vector<std::string_view> fuzz_split(const uint8_t *data, size_t size, char sep, size_t max)
{
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    std::vector<std::string_view> parts;
    while (parts.size() + 1 < max) {
        size_t at = rest.find(sep);
        if (at == std::string_view::npos)
            break;
        parts.push_back(rest.substr(0, at));
        rest.remove_prefix(at + 1);
    }
    parts.push_back(rest);
    return parts;
}
