#include "common/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

// Formats prefix and message into one text; a stack buffer serves nearly every line.
class LineBuilder {
public:
    void append(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list ap;
        va_start(ap, fmt);
        appendv(fmt, ap);
        va_end(ap);
    }

    void appendv(const char *fmt, va_list ap)
    {
        va_list copy;
        va_copy(copy, ap);
        int room = static_cast<int>(sizeof(stack_) - used_);
        int n = heap_.empty() ? vsnprintf(stack_ + used_, room, fmt, copy) : -2;
        va_end(copy);
        if (n >= 0 && n < room) {
            used_ += n;
            return;
        }
        if (heap_.empty())
            heap_.assign(stack_, used_);
        va_copy(copy, ap);
        int need = vsnprintf(nullptr, 0, fmt, copy);
        va_end(copy);
        if (need <= 0)
            return;
        size_t old = heap_.size();
        heap_.resize(old + need + 1);
        vsnprintf(&heap_[old], need + 1, fmt, ap);
        heap_.resize(old + need);
    }

    void write_to(int fd) const
    {
        if (heap_.empty())
            log_write_all(fd, stack_, used_);
        else
            log_write_all(fd, heap_.data(), heap_.size());
    }

private:
    char stack_[1024];
    size_t used_ = 0;
    std::string heap_;
};

} // namespace

void log_write_all(int fd, const char *text, size_t len)
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

int log_module_length(const char *file)
{
    const char *slash = strrchr(file, '/');
    return slash ? static_cast<int>(slash - file) : static_cast<int>(strlen(file));
}

namespace {

void error_line(const char *file, int line, const char *func, const char *fmt, va_list ap)
{
    LineBuilder b;
    b.append("\033[1;31m<ERROR! %.*s:%d, %s>: ", log_module_length(file), file, line, func);
    b.appendv(fmt, ap);
    b.append("\033[0m");
    b.write_to(STDERR_FILENO);
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
    LineBuilder b;
    b.append("<DEBUG file %.*s, line %d>: ", log_module_length(file), file, line);
    va_list ap;
    va_start(ap, fmt);
    b.appendv(fmt, ap);
    va_end(ap);
    b.write_to(STDOUT_FILENO);
}

void log_print(const char *fmt, ...)
{
    LineBuilder b;
    va_list ap;
    va_start(ap, fmt);
    b.appendv(fmt, ap);
    va_end(ap);
    b.write_to(STDOUT_FILENO);
}
