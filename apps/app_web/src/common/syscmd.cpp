#include "common/syscmd.h"

#include "common/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kCommandSize = 512;  // command copy, terminator included
constexpr size_t kMaxWords = 512;     // argument list entries, the closing null included
constexpr size_t kProgramSize = 32;   // "/sbin/" + first word + terminator
constexpr size_t kMaxProgramName = 25;

} // namespace

int HTTP_SYSTEM_CMD(const char *cmd)
{
    if (!cmd) {
        HTTP_PRINT("cmd NULL\n");
        return -1;
    }
    size_t len = strnlen(cmd, kCommandSize);
    if (len >= kCommandSize) {
        HTTP_ERROR("command of %zu characters or more refused: %.40s...\n", kCommandSize, cmd);
        return -1;
    }

    char copy[kCommandSize];
    memcpy(copy, cmd, len + 1);
    char *argv[kMaxWords] = {};
    size_t argc = 0;
    char *save = nullptr;
    for (char *word = strtok_r(copy, " ", &save); word && argc < kMaxWords - 1;
         word = strtok_r(nullptr, " ", &save))
        argv[argc++] = word;
    if (argc == 0) {
        HTTP_ERROR("command without a word refused: <%s>\n", cmd);
        return -1;
    }
    if (strlen(argv[0]) > kMaxProgramName) {
        HTTP_ERROR("program name longer than %zu characters refused: <%s>\n", kMaxProgramName, argv[0]);
        return -1;
    }

    // Everything the child needs is prepared here: after fork it only calls execve,
    // write and _exit, which are safe in the child of a threaded process.
    char bin_path[kProgramSize];
    char sbin_path[kProgramSize];
    snprintf(bin_path, sizeof bin_path, "/bin/%s", argv[0]);
    snprintf(sbin_path, sizeof sbin_path, "/sbin/%s", argv[0]);
    char fail_line[kCommandSize + 32];
    int fail_len = snprintf(fail_line, sizeof fail_line, "system cmd:<%s> fail!\n", cmd);
    char *envp[] = {nullptr};

    log_flush();  // the child's output must come after the lines written before it
    pid_t child = fork();
    if (child < 0) {
        HTTP_PRINT("vfork fail:\n");
        return -1;
    }
    if (child == 0) {
        execve(bin_path, argv, envp);
        execve(sbin_path, argv, envp);
        // Written directly: a batch copied from the parent would never be written.
        ssize_t n = write(STDOUT_FILENO, fail_line, static_cast<size_t>(fail_len));
        (void)n;
        _exit(127);
    }
    // Wait for our own child only: waiting for any child could take the exit of a child
    // that another part of the process started.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return 0;
}
