// The layer's log: a destination ("stdout", "stderr" or a file path) and a level, set
// together as "DEST:LEVEL". A message is written when its level is at or below the log
// level; error() messages have level 0. Every message is one whole-line write.
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs_internal.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {

std::mutex log_mutex;       // guards log_fd changes against writers
int log_fd = STDOUT_FILENO;
UniqueFd log_file;          // the destination when it is a file
std::atomic<int> log_level{0};
std::atomic<bool> debug{false};

void write_message(int level, const char *fmt, va_list ap)
{
    if (level > log_level.load())
        return;
    char stack[1024];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(stack, sizeof stack, fmt, copy);
    va_end(copy);
    if (n < 0)
        return;
    std::string heap;
    const char *text = stack;
    size_t len = static_cast<size_t>(n);
    if (len + 1 >= sizeof stack) {
        heap.resize(len + 1);
        vsnprintf(heap.data(), heap.size(), fmt, ap);
        heap.resize(len);
        text = heap.c_str();
    }
    // Messages are lines: one without its newline gets one.
    if (len == 0 || text[len - 1] != '\n') {
        if (text == stack && len + 1 < sizeof stack) {
            stack[len++] = '\n';
        } else {
            heap.assign(text, len);
            heap += '\n';
            text = heap.c_str();
            len = heap.size();
        }
    }
    std::lock_guard<std::mutex> lock(log_mutex);
    log_write_all(log_fd, text, len);
}

}  // namespace

void logSetPath(const char *path)
{
    if (!path)
        return;
    std::string dest(path);
    int level = 0;
    size_t colon = dest.rfind(':');
    if (colon != std::string::npos) {
        level = static_cast<int>(strtol(dest.c_str() + colon + 1, nullptr, 10));
        dest.resize(colon);
    }
    std::lock_guard<std::mutex> lock(log_mutex);
    if (dest == "stdout" || dest.empty()) {
        log_file.reset();
        log_fd = STDOUT_FILENO;
    } else if (dest == "stderr") {
        log_file.reset();
        log_fd = STDERR_FILENO;
    } else {
        UniqueFd fd(open(dest.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        if (!fd) {
            HTTP_ERROR("cannot open log file %s: %s\n", dest.c_str(), strerror(errno));
            return;
        }
        log_file = std::move(fd);
        log_fd = log_file.get();
    }
    log_level = level;
}

void websSetDebug(int on) { debug = on != 0; }

int websGetLogLevel() { return log_level.load(); }

void logmsg(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    write_message(level, fmt, ap);
    va_end(ap);
}

void trace(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    write_message(level, fmt, ap);
    va_end(ap);
}

void error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    write_message(0, fmt, ap);
    va_end(ap);
}

bool webs::debug_mode() { return debug.load(); }
