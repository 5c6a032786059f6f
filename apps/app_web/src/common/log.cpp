#include "common/log.h"

#include "common/formatted_text.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// The lines a thread keeps while it is inside a LogBatch: the texts in order, and where each
// run of lines to one stream ends.
struct Batch {
    int depth = 0;
    std::string text;
    std::vector<std::pair<int, size_t>> runs;  // stream, end offset in text
};
thread_local Batch batch;

// A batch that grew this large is written at once, so a burst of lines cannot hold memory.
constexpr size_t kMaxBatchBytes = 64 * 1024;

void write_direct(int fd, const char *text, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        text += n;
        len -= static_cast<size_t>(n);
    }
}

} // namespace

void log_write_all(int fd, const char *text, size_t len)
{
    if (batch.depth == 0) {
        write_direct(fd, text, len);
        return;
    }
    batch.text.append(text, len);
    if (!batch.runs.empty() && batch.runs.back().first == fd)
        batch.runs.back().second = batch.text.size();
    else
        batch.runs.emplace_back(fd, batch.text.size());
    if (batch.text.size() >= kMaxBatchBytes)
        log_flush();
}

void log_flush()
{
    size_t start = 0;
    for (auto [fd, end] : batch.runs) {
        write_direct(fd, batch.text.data() + start, end - start);
        start = end;
    }
    batch.text.clear();
    batch.runs.clear();
}

LogBatch::LogBatch() { ++batch.depth; }

LogBatch::~LogBatch()
{
    if (--batch.depth == 0)
        log_flush();
}

int log_module_length(const char *file)
{
    const char *slash = strrchr(file, '/');
    return slash ? static_cast<int>(slash - file) : static_cast<int>(strlen(file));
}

namespace {

void error_line(const char *file, int line, const char *func, const char *fmt, va_list ap)
{
    FormattedText b;
    b.append("\033[1;31m<ERROR! %.*s:%d, %s>: ", log_module_length(file), file, line, func);
    b.appendv(fmt, ap);
    b.append("\033[0m");
    log_write_all(STDERR_FILENO, b.c_str(), b.size());
}

} // namespace

void log_error_line(const char *file, int line, const char *func, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    error_line(file, line, func, fmt, ap);
    va_end(ap);
}

void log_error_at(const LogSite &site, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    error_line(site.file, site.line, site.func, fmt, ap);
    va_end(ap);
}

void log_debug_line(const char *file, int line, const char *fmt, ...)
{
    FormattedText b;
    b.append("<DEBUG file %.*s, line %d>: ", log_module_length(file), file, line);
    va_list ap;
    va_start(ap, fmt);
    b.appendv(fmt, ap);
    va_end(ap);
    log_write_all(STDOUT_FILENO, b.c_str(), b.size());
}

void log_line_v(int fd, const char *fmt, va_list ap)
{
    FormattedText b;
    b.appendv(fmt, ap);
    if (b.failed())
        return;
    // Messages are lines: one without its newline gets one.
    if (!b.ends_with('\n'))
        b.append("\n");
    log_write_all(fd, b.c_str(), b.size());
}

void log_print(const char *fmt, ...)
{
    FormattedText b;
    va_list ap;
    va_start(ap, fmt);
    b.appendv(fmt, ap);
    va_end(ap);
    log_write_all(STDOUT_FILENO, b.c_str(), b.size());
}
