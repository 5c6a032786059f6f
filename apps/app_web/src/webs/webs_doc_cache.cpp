#include "webs/webs_doc_cache.h"

#include "webs/webs_limits.h"

#include <algorithm>

namespace webs {

namespace {

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

DocumentCache::~DocumentCache()
{
    for (Entry &e : entries_)
        MHD_destroy_response(e.response);
}

MHD_Response *DocumentCache::find(const DocumentKey &key, const struct stat &st)
{
    for (Entry &e : entries_) {
        if (!e.is(key))
            continue;
        if (!same_file(e.st, st))
            return nullptr;  // replaced by keep() once the new reply is made
        e.used = ++turn_;
        return e.response;
    }
    return nullptr;
}

void DocumentCache::keep(const DocumentKey &key, const struct stat &st, MHD_Response *response)
{
    auto same = std::find_if(entries_.begin(), entries_.end(), [&](const Entry &e) { return e.is(key); });
    Entry *slot = same != entries_.end() ? &*same : nullptr;
    if (!slot && entries_.size() < webs_limits::kCachedDocuments)
        slot = &entries_.emplace_back();
    if (!slot)
        slot = &*std::min_element(entries_.begin(), entries_.end(),
                                  [](const Entry &a, const Entry &b) { return a.used < b.used; });
    if (slot->response)
        MHD_destroy_response(slot->response);
    *slot = Entry{std::string(key.path), key.type, key.packed, key.vary, st, response, ++turn_};
}

}  // namespace webs
