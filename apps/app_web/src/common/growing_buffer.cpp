#include "common/growing_buffer.h"

#include <cstdlib>
#include <cstring>

bool GrowingBuffer::reserve_more(size_t more)
{
    size_t need = used_ + more + 1;
    if (need <= room_)
        return true;
    size_t room = room_ ? room_ : first_room_;
    while (room < need)
        room *= 2;
    char *grown = static_cast<char *>(realloc(data_.get(), room));
    if (!grown)
        return false;
    (void)data_.release();  // realloc took the old block
    data_.reset(grown);
    room_ = room;
    data_.get()[used_] = '\0';
    return true;
}

bool GrowingBuffer::append(const void *bytes, size_t len)
{
    if (!reserve_more(len))
        return false;
    memcpy(end(), bytes, len);
    grow_used(len);
    return true;
}

void GrowingBuffer::grow_used(size_t n)
{
    used_ += n;
    data_.get()[used_] = '\0';
}

void GrowingBuffer::shrink_to_fit()
{
    if (!data_ || room_ == used_ + 1)
        return;
    if (char *fitted = static_cast<char *>(realloc(data_.get(), used_ + 1))) {
        (void)data_.release();
        data_.reset(fitted);
        room_ = used_ + 1;
    }
}

char *GrowingBuffer::release()
{
    used_ = room_ = 0;
    return data_.release();
}
