// The layer's log: a destination ("stdout", "stderr" or a file path) and a level, set
// together as "DEST:LEVEL". A message is written when its level is at or below the log
// level; error() messages have level 0. The lines are formatted and written by the server's
// log (common/log.h), one whole line per message.
#include "common/log.h"
#include "common/owners.h"
#include "webs/webs_internal.h"

#include <atomic>
#include <cstdarg>
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
    std::lock_guard<std::mutex> lock(log_mutex);
    log_line_v(log_fd, fmt, ap);
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
