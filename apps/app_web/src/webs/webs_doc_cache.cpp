#include "webs/webs_doc_cache.h"

#include "webs/webs_limits.h"

#include <algorithm>
#include <fcntl.h>

namespace webs {

namespace {

bool same(const FileState &a, const FileState &b)
{
    if (a.present != b.present)
        return false;
    const struct stat &x = a.st, &y = b.st;
    return !a.present || (x.st_dev == y.st_dev && x.st_ino == y.st_ino && x.st_mode == y.st_mode &&
                          x.st_size == y.st_size && x.st_mtim.tv_sec == y.st_mtim.tv_sec &&
                          x.st_mtim.tv_nsec == y.st_mtim.tv_nsec && x.st_ctim.tv_sec == y.st_ctim.tv_sec &&
                          x.st_ctim.tv_nsec == y.st_ctim.tv_nsec);
}

}  // namespace

FileState file_state(int root_fd, const std::string &relative)
{
    FileState s;
    s.present = fstatat(root_fd, relative.c_str(), &s.st, AT_SYMLINK_NOFOLLOW) == 0;
    return s;
}

DocumentCache::~DocumentCache()
{
    for (Entry &e : entries_)
        MHD_destroy_response(e.response);
}

MHD_Response *DocumentCache::find(int root_fd, std::string_view asked, bool gzip)
{
    for (Entry &e : entries_) {
        if (e.gzip != gzip || e.asked != asked)
            continue;
        const Sources &s = e.sources;
        if (!same(file_state(root_fd, s.sent), s.sent_state) || !same(file_state(root_fd, s.packed), s.packed_state))
            return nullptr;  // replaced by keep() once the new reply is made
        e.used = ++turn_;
        return e.response;
    }
    return nullptr;
}

void DocumentCache::keep(std::string_view asked, bool gzip, Sources sources, MHD_Response *response)
{
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry &e) { return e.gzip == gzip && e.asked == asked; });
    Entry *slot = it != entries_.end() ? &*it : nullptr;
    if (!slot && entries_.size() < webs_limits::kCachedDocuments)
        slot = &entries_.emplace_back();
    if (!slot)
        slot = &*std::min_element(entries_.begin(), entries_.end(),
                                  [](const Entry &a, const Entry &b) { return a.used < b.used; });
    if (slot->response)
        MHD_destroy_response(slot->response);
    *slot = Entry{std::string(asked), gzip, std::move(sources), response, ++turn_};
}

}  // namespace webs
