// Log lines of the web server: red error lines on standard error, debug traces and plain
// progress lines on standard output. Each line is written whole, so lines of two threads never
// interleave. A thread inside a LogBatch keeps its lines and writes them together at the end
// (the event loop batches each turn: a relay's dozen lines cost one write, not twelve).
#pragma once

#include <cstdarg>
#include <cstddef>

void log_error_line(const char *file, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
void log_debug_line(const char *file, int line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void log_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Where a line is written from; lets a shared helper write its lines in its caller's name.
struct LogSite {
    const char *file;
    int line;
    const char *func;
};
#define LOG_HERE (LogSite{__FILE__, __LINE__, __func__})
void log_error_at(const LogSite &site, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// One line without prefix, formatted from fmt and written whole to fd (with a newline added
// when the text does not end in one); nothing is written when the text cannot be formatted.
// The web layer's own log (webs.h) writes its lines through this.
void log_line_v(int fd, const char *fmt, va_list ap);

// Writes the bytes to fd in full (retrying short writes and EINTR), or keeps them in the
// calling thread's batch; the building block of the functions above, also used for lines
// formatted elsewhere.
void log_write_all(int fd, const char *text, size_t len);

// Keeps the calling thread's lines from construction to destruction, in order, and writes
// them then, one write per run of lines to the same stream. Batches nest; the outermost one
// writes.
class LogBatch {
public:
    LogBatch();
    ~LogBatch();
    LogBatch(const LogBatch &) = delete;
    LogBatch &operator=(const LogBatch &) = delete;
};
// Writes what the calling thread's batch holds now: before anything that may wait (a
// command, a hand-over to another thread), so the lines come out in the order they happened.
void log_flush();

// The module folder of a source path, e.g. "apps/app_web/src/common" for
// "apps/app_web/src/common/log.cpp"; returns the length of that prefix.
int log_module_length(const char *file);

// Error line: "\033[1;31m<ERROR! module:line, function>: " message "\033[0m" on stderr.
#define HTTP_ERROR(...) log_error_line(__FILE__, __LINE__, __func__, __VA_ARGS__)
// An error line in the name of func: a step that runs from an event-loop callback keeps the
// function name that the logs know it by.
#define HTTP_ERROR_AS(func, ...) log_error_at(LogSite{__FILE__, __LINE__, func}, __VA_ARGS__)
// Debug trace: "<DEBUG file module, line N>: " message on stdout.
#define HTTP_DEBUG(...) log_debug_line(__FILE__, __LINE__, __VA_ARGS__)
// Progress line: the message as it stands, on stdout.
#define HTTP_PRINT(...) log_print(__VA_ARGS__)
