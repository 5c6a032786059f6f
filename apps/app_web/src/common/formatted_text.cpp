#include "common/formatted_text.h"

#include <cstdio>

void FormattedText::append(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    appendv(fmt, ap);
    va_end(ap);
}

void FormattedText::appendv(const char *fmt, va_list ap)
{
    va_list copy;
    if (!on_heap_) {
        size_t room = sizeof stack_ - used_;
        va_copy(copy, ap);
        int n = vsnprintf(stack_ + used_, room, fmt, copy);
        va_end(copy);
        if (n >= 0 && static_cast<size_t>(n) < room) {
            used_ += static_cast<size_t>(n);
            return;
        }
        // The part was cut (or failed): the text so far moves to the heap and the part is
        // formatted there whole.
        heap_.assign(stack_, used_);
        on_heap_ = true;
    }
    va_copy(copy, ap);
    int need = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (need < 0) {
        failed_ = true;
        return;
    }
    size_t old = heap_.size();
    heap_.resize(old + static_cast<size_t>(need) + 1);
    vsnprintf(&heap_[old], static_cast<size_t>(need) + 1, fmt, ap);
    heap_.resize(old + static_cast<size_t>(need));
}
