// Recording listing benchmark: builds cards under the storage root and compares the listing
// action with find(1) over the same tree (time), and the peak resident memory a listing adds
// with the size of its reply. Runs only inside tests/isolate.sh (bench/listing.sh; with
// --card FOLDERS FILES it only lays out a card, for bench/listing_server.sh).
#include "common/owners.h"
#include "network/storage.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

constexpr long kTmpfsMagic = 0x01021994;
// Timed rounds per card; the median of each side is compared.
constexpr int kRounds = 9;

struct Card {
    int folders, files;
};
constexpr Card kCards[] = {{30, 1000}, {365, 100}};

double now_ms()
{
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

void die(const char *what)
{
    fprintf(stderr, "listing_bench: %s: %s\n", what, strerror(errno));
    exit(1);
}

// A card of recordings named as the device names them: day folders of minute files, each a
// sparse file of a recording's size.
void build_card(const Card &card)
{
    std::error_code ec;
    std::filesystem::remove_all("/mnt/app/web_root/sd", ec);
    std::filesystem::create_directories("/mnt/app/web_root/sd");
    UniqueFd marker(open(kStorageListFile, O_CREAT | O_WRONLY, 0644));
    if (!marker)
        die("cannot create the list file");
    for (int d = 0; d < card.folders; ++d) {
        char dir[96];
        snprintf(dir, sizeof dir, "%s%04d%02d%02d", kStorageRoot, 2023 + d / 360, 1 + d / 30 % 12, 1 + d % 30);
        if (mkdir(dir, 0755) != 0)
            die("mkdir");
        for (int f = 0; f < card.files; ++f) {
            char path[160];
            snprintf(path, sizeof path, "%s/%02d%02d%02d_%04d.mp4", dir, f / 60 % 24, f % 60, f * 7 % 60, f);
            UniqueFd fd(open(path, O_CREAT | O_WRONLY, 0644));
            if (!fd || ftruncate(fd.get(), 52428800 + 4099L * f) != 0)
                die("cannot create a recording");
        }
    }
}

// Runs argv with stdout to /dev/null (or to out_fd) and waits for it.
void run(const std::vector<const char *> &argv, int out_fd = -1)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out_fd >= 0)
        posix_spawn_file_actions_adddup2(&actions, out_fd, 1);
    else
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    std::vector<char *> args;
    for (const char *a : argv)
        args.push_back(const_cast<char *>(a));
    args.push_back(nullptr);
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
        die("spawn");
    posix_spawn_file_actions_destroy(&actions);
    int status;
    waitpid(pid, &status, 0);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

long status_kb(const char *key)
{
    FilePtr f(fopen("/proc/self/status", "r"));
    char line[256];
    size_t n = strlen(key);
    while (f && fgets(line, sizeof line, f.get()))
        if (strncmp(line, key, n) == 0)
            return strtol(line + n, nullptr, 10);
    return -1;
}

// In a fresh process: resets the high-water mark, lists once, and prints the memory the
// listing added (kB) and the reply's size (bytes).
int measure_peak()
{
    int out = dup(1);
    int null = open("/dev/null", O_WRONLY);
    {
        UniqueFd clear(open("/proc/self/clear_refs", O_WRONLY));
        if (!clear || write(clear.get(), "5", 1) != 1)
            die("cannot reset the peak resident memory");
    }
    long before = status_kb("VmRSS:");
    char *reply = nullptr;
    dup2(null, 1);
    actiongetVideoDirectory(nullptr, &reply);
    dup2(out, 1);
    long peak = status_kb("VmHWM:");
    HeapText owner(reply);
    printf("%ld %zu\n", peak - before, reply ? strlen(reply) : 0);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    struct statfs fs;
    if (!getenv("WEB_TEST_ISOLATED") || statfs("/mnt", &fs) != 0 || fs.f_type != kTmpfsMagic) {
        fprintf(stderr, "listing_bench: run it through bench/listing.sh (it writes the storage root)\n");
        return 2;
    }
    if (argc > 1 && strcmp(argv[1], "--peak") == 0)
        return measure_peak();
    // Only lays out a card, for the benchmark through the server (bench/listing_server.sh).
    if (argc == 4 && strcmp(argv[1], "--card") == 0) {
        build_card({static_cast<int>(strtol(argv[2], nullptr, 10)), static_cast<int>(strtol(argv[3], nullptr, 10))});
        return 0;
    }

    printf("%-14s %7s %10s %10s %9s %7s %12s %8s\n", "card", "files", "reply B", "list ms", "find ms", "time x",
           "peak add kB", "mem x");
    int saved_out = dup(1);
    int null = open("/dev/null", O_WRONLY);
    for (const Card &card : kCards) {
        build_card(card);
        // Memory first, in a fresh process, so no freed memory of an earlier listing is reused.
        int pipe_fd[2];
        if (pipe(pipe_fd) != 0)
            die("pipe");
        run({"/proc/self/exe", "--peak"}, pipe_fd[1]);
        close(pipe_fd[1]);
        char line[64] = "";
        ssize_t got = read(pipe_fd[0], line, sizeof line - 1);
        close(pipe_fd[0]);
        long peak_kb = 0;
        size_t reply_size = 0;
        if (got <= 0 || sscanf(line, "%ld %zu", &peak_kb, &reply_size) != 2 || reply_size == 0)
            die("the peak measurement gave nothing");

        std::vector<double> list_ms, find_ms;
        for (int round = -1; round < kRounds; ++round) {  // round -1 warms the caches
            double t0 = now_ms();
            run({"/usr/bin/find", "/mnt/app/web_root/sd/", "-maxdepth", "2", "-printf", "%s %C@ %f\n"});
            double t1 = now_ms();
            char *reply = nullptr;
            dup2(null, 1);
            actiongetVideoDirectory(nullptr, &reply);
            dup2(saved_out, 1);
            double t2 = now_ms();
            free(reply);
            if (round >= 0) {
                find_ms.push_back(t1 - t0);
                list_ms.push_back(t2 - t1);
            }
        }
        char name[32];
        snprintf(name, sizeof name, "%dx%d", card.folders, card.files);
        double lm = median(list_ms), fm = median(find_ms);
        printf("%-14s %7d %10zu %10.2f %9.2f %7.2f %12ld %8.2f\n", name, card.folders * card.files, reply_size, lm,
               fm, lm / fm, peak_kb, peak_kb * 1024.0 / static_cast<double>(reply_size));
        fflush(stdout);
    }
    printf("targets: time x <= 2.00 (listing against find -maxdepth 2), mem x <= 3.00 (peak added against reply)\n");
    return 0;
}
