// printf-style text built in a buffer on the stack, which holds nearly every log line and
// reply piece, and moved to the heap only when it does not fit there.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

class FormattedText {
public:
    FormattedText() { stack_[0] = '\0'; }
    FormattedText(const FormattedText &) = delete;
    FormattedText &operator=(const FormattedText &) = delete;

    void append(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    void appendv(const char *fmt, va_list ap);

    // The text so far, terminated.
    const char *c_str() const { return on_heap_ ? heap_.c_str() : stack_; }
    size_t size() const { return on_heap_ ? heap_.size() : used_; }
    std::string_view view() const { return {c_str(), size()}; }
    bool ends_with(char c) const { return size() > 0 && c_str()[size() - 1] == c; }
    // A part could not be formatted (an encoding error); it is missing from the text.
    bool failed() const { return failed_; }

private:
    static constexpr size_t kStackBytes = 1024;

    char stack_[kStackBytes];
    size_t used_ = 0;
    std::string heap_;
    bool on_heap_ = false;
    bool failed_ = false;
};
