// Bytes in one heap block that grows as they are added: doubling its room, so adding stays
// cheap however large the text becomes, and through realloc, which remaps a large block
// instead of copying it. The bytes are always followed by a terminator, so a text can be
// handed on as it is.
#pragma once

#include "common/owners.h"

#include <cstddef>

class GrowingBuffer {
public:
    GrowingBuffer() = default;
    // first_room: the block's size when the first byte comes (the doubling starts there).
    explicit GrowingBuffer(size_t first_room) : first_room_(first_room ? first_room : 1) {}
    GrowingBuffer(GrowingBuffer &&) noexcept = default;
    GrowingBuffer &operator=(GrowingBuffer &&) noexcept = default;

    // Room for more bytes behind the used ones (and their terminator); false when memory
    // runs out, with the buffer unchanged.
    bool reserve_more(size_t more);
    // Adds len bytes; false when memory runs out, with the buffer unchanged.
    bool append(const void *bytes, size_t len);
    // Where the next bytes go; after reserve_more(n), n bytes may be written there and then
    // counted with grow_used(n).
    char *end() { return data_.get() + used_; }
    void grow_used(size_t n);

    char *data() { return data_.get(); }
    const char *data() const { return data_.get(); }
    size_t size() const { return used_; }
    // Gives back the room beyond the bytes and their terminator (a failed shrink keeps it).
    void shrink_to_fit();
    // Hands the terminated block over (the taker frees it; nullptr when nothing was ever
    // stored) and leaves the buffer empty.
    char *release();

private:
    HeapText data_;
    size_t used_ = 0;
    size_t room_ = 0;
    size_t first_room_ = 256;
};
