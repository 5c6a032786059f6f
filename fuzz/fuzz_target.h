// Fuzz targets: each feeds one input to one parser of outside input and checks what must hold
// whatever the input. A target is built twice: as a libFuzzer binary (clang, scripts/fuzz.sh)
// and into the replay test, which runs every kept input of it without clang (replay_test.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

struct FuzzTarget {
    const char *name;
    void (*init)();                            // once before the first input, or nullptr
    void (*run)(const uint8_t *data, size_t size);
};

// Every target linked into this binary.
const std::vector<FuzzTarget> &fuzz_targets();
const FuzzTarget *find_fuzz_target(std::string_view name);

struct FuzzRegistration {
    FuzzRegistration(const char *name, void (*init)(), void (*run)(const uint8_t *, size_t));
};

#define FUZZ_CONCAT2(a, b) a##b
#define FUZZ_CONCAT(a, b) FUZZ_CONCAT2(a, b)
// Registers a target under name.
#define FUZZ_TARGET(name, init, run) static const FuzzRegistration FUZZ_CONCAT(fuzz_target_, __LINE__)(name, init, run)

// A property every input must keep; a violation is a finding: the message names the check
// and the process aborts, so libFuzzer keeps the input and the replay test fails.
#define FUZZ_CHECK(cond, what) \
    do { \
        if (!(cond)) \
            fuzz_fail(__FILE__, __LINE__, #cond, what); \
    } while (0)
[[noreturn]] void fuzz_fail(const char *file, int line, const char *cond, std::string_view what);
// What fuzz_fail names as the input (the replay test sets the file it runs).
void fuzz_set_input_name(std::string_view name);

// The input split at a separator byte into at most max parts (the last keeps the rest).
std::vector<std::string_view> fuzz_split(const uint8_t *data, size_t size, char sep, size_t max);
