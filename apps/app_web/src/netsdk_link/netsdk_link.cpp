#include "netsdk_link/netsdk_link.h"

#include "common/log.h"

#include <utility>
#include <cstring>
#include <new>

namespace {

// First room of a growing table: a few dozen entries before the first doubling.
constexpr size_t kTableFirstBytes = 2048;
// Packed entry: the size, then the time and the name each behind a one-byte length.
constexpr size_t kEntryFixedBytes = sizeof(uint64_t) + 2;

} // namespace

NetsdkFileTable::NetsdkFileTable() : entries_(kTableFirstBytes) {}

bool NetsdkFileTable::append(const NETSDK_FILE_INFO &entry)
{
    size_t time_len = strnlen(entry.time, kNetsdkTextSize - 1);
    size_t name_len = strnlen(entry.name, kNetsdkTextSize - 1);
    size_t packed = kEntryFixedBytes + time_len + name_len;
    if (!entries_.reserve_more(packed))
        return false;
    unsigned char *p = reinterpret_cast<unsigned char *>(entries_.end());
    memcpy(p, &entry.size, sizeof entry.size);
    p += sizeof entry.size;
    *p++ = static_cast<unsigned char>(time_len);
    memcpy(p, entry.time, time_len);
    p += time_len;
    *p++ = static_cast<unsigned char>(name_len);
    memcpy(p, entry.name, name_len);
    entries_.grow_used(packed);
    ++count_;
    return true;
}

bool NetsdkFileTable::assign(const NetsdkFileTable &other)
{
    // An exact-size copy: the copies in a listing are only read.
    GrowingBuffer copy(other.entries_.size() + 1);
    if (other.entries_.size() > 0 && !copy.append(other.entries_.data(), other.entries_.size()))
        return false;
    entries_ = std::move(copy);
    count_ = other.count_;
    return true;
}

NetsdkFileView NetsdkFileTable::unpack(const unsigned char **p)
{
    NetsdkFileView view;
    const unsigned char *q = *p;
    memcpy(&view.size, q, sizeof view.size);
    q += sizeof view.size;
    size_t time_len = *q++;
    view.time = std::string_view(reinterpret_cast<const char *>(q), time_len);
    q += time_len;
    size_t name_len = *q++;
    view.name = std::string_view(reinterpret_cast<const char *>(q), name_len);
    *p = q + name_len;
    return view;
}

NETSDK_LINK_NODE *NETSDK_CREATE_LINK()
{
    NETSDK_LINK_NODE *head = new (std::nothrow) NETSDK_LINK_NODE;
    if (!head)
        HTTP_ERROR("link head malloc fail\n");
    return head;
}

int NETSDK_LINK_INS_HEAD_LINK(NETSDK_LINK_NODE *head, const NETSDK_LINK_NODE *src)
{
    if (!head || !src) {
        HTTP_ERROR("Invalid input params!\n");
        return -1;
    }
    std::unique_ptr<NETSDK_LINK_NODE> node(new (std::nothrow) NETSDK_LINK_NODE);
    if (!node || !node->files.assign(src->files)) {
        HTTP_ERROR("link newnode malloc fail\n");
        return -1;
    }
    memcpy(node->dir_name, src->dir_name, sizeof node->dir_name);
    node->dir_name[kNetsdkTextSize - 1] = '\0';
    node->last_index = src->last_index;
    node->next = head->next;
    head->next = node.release();
    return 0;
}

int NETSDK_LINK_DIS_LINK(NETSDK_LINK_NODE *head)
{
    if (!head)
        return 0;
    // Iteratively, so a long chain never recurses.
    while (NETSDK_LINK_NODE *node = head->next) {
        head->next = node->next;
        delete node;
    }
    delete head;
    return 0;
}
