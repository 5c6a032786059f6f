// enosys CALL[,CALL...] PROGRAM [ARGS...]
// Runs PROGRAM with the named system calls failing with ENOSYS, as on a kernel that predates
// them (getrandom: 3.17, openat2: 5.6). A seccomp filter does it; it stays through exec and
// for every child. Before running PROGRAM it checks that each call really fails that way.
// Exit status 126 when the filter cannot be set up.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

#if defined(__x86_64__)
constexpr unsigned kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kAuditArch = AUDIT_ARCH_AARCH64;
#elif defined(__arm__)
constexpr unsigned kAuditArch = AUDIT_ARCH_ARM;
#elif defined(__i386__)
constexpr unsigned kAuditArch = AUDIT_ARCH_I386;
#else
#error "enosys: unknown architecture"
#endif

struct Call {
    const char *name;
    long number;
    // A call that the kernel answers without side effects; ENOSYS only under the filter.
    long (*probe)();
};

const Call kCalls[] = {
    {"getrandom", SYS_getrandom, [] { return syscall(SYS_getrandom, nullptr, 0, 0); }},
    {"openat2", SYS_openat2, [] { return syscall(SYS_openat2, -1, "", nullptr, 0); }},
};

const Call *find_call(const std::string &name)
{
    for (const Call &c : kCalls)
        if (name == c.name)
            return &c;
    return nullptr;
}

int fail(const char *what)
{
    fprintf(stderr, "enosys: %s\n", what);
    return 126;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return fail("usage: enosys CALL[,CALL...] PROGRAM [ARGS...]");
    std::vector<const Call *> calls;
    std::string list = argv[1];
    for (size_t start = 0; start <= list.size();) {
        size_t comma = list.find(',', start);
        std::string name = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const Call *c = find_call(name);
        if (!c)
            return fail(("unknown call " + name).c_str());
        calls.push_back(c);
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }

    // Other architectures' calls (a 32-bit call on a 64-bit kernel) pass: their numbers differ.
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    for (const Call *c : calls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(c->number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog fprog{static_cast<unsigned short>(program.size()), program.data()};

    // Without new privileges an unprivileged process may install a filter.
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) != 0)
        return fail((std::string("cannot install the filter: ") + strerror(errno)).c_str());
    for (const Call *c : calls) {
        errno = 0;
        if (c->probe() != -1 || errno != ENOSYS)
            return fail((std::string(c->name) + " still reaches the kernel").c_str());
    }
    execvp(argv[2], argv + 2);
    return fail((std::string("cannot run ") + argv[2] + ": " + strerror(errno)).c_str());
}
