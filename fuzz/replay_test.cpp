// Every kept input of every fuzz target, run without clang: the minimized corpus of each
// target (fuzz/corpus/NAME) and every input that ever made one fail (fuzz/crashes/NAME).
// Each target runs in a process of its own, as in its libFuzzer binary: some start the web
// server, others open and close the web layer themselves.
#include "fuzz_target.h"
#include "testsupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

constexpr char kTargetVariable[] = "FUZZ_REPLAY_TARGET";

std::vector<fs::path> kept_inputs(const std::string &target)
{
    std::vector<fs::path> files;
    for (const char *kind : {"corpus", "crashes"}) {
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(fs::path(WEB_SOURCE_DIR) / "fuzz" / kind / target, ec))
            if (e.is_regular_file())
                files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(FuzzReplay, EveryKeptInputOfEveryTargetRunsCleanly)
{
    if (const char *name = getenv(kTargetVariable)) {
        const FuzzTarget *target = find_fuzz_target(name);
        ASSERT_NE(nullptr, target) << name;
        std::vector<fs::path> inputs = kept_inputs(name);
        EXPECT_FALSE(inputs.empty()) << "no kept input for " << name;
        if (target->init)
            target->init();
        for (const fs::path &input : inputs) {
            std::string bytes = ts::read_file(input);
            fuzz_set_input_name(input.string());
            target->run(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        }
        return;
    }
    for (const FuzzTarget &target : fuzz_targets()) {
        setenv(kTargetVariable, target.name, 1);
        std::string output;
        int status = ts::run({"/proc/self/exe", "--gtest_filter=FuzzReplay.*"}, &output, 300000);
        unsetenv(kTargetVariable);
        EXPECT_EQ(0, status) << target.name << ":\n" << output.substr(output.size() > 8000 ? output.size() - 8000 : 0);
    }
}

} // namespace
