// Ready replies of small documents sent whole (GET, no range, no If-Modified-Since), so
// that a page asked for again goes out with two stats instead of being opened, read and
// given its headers anew. A reply serves only while the two files it was decided by are
// as they were: the file sent (device, inode, size, modification and change times) and its
// precompressed copy NAME.gz (present or not, and the same), which decides Vary. Replies
// of a NAME.gz are not kept. The longest unused entry makes room for a new one. Used on the
// event loop only.
#pragma once

#include <cstdint>
#include <microhttpd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace webs {

// A file below the document root as fstatat sees it, a last link not followed.
struct FileState {
    bool present = false;
    struct stat st {};
};
FileState file_state(int root_fd, const std::string &relative);

class DocumentCache {
public:
    DocumentCache() = default;
    DocumentCache(const DocumentCache &) = delete;
    DocumentCache &operator=(const DocumentCache &) = delete;
    ~DocumentCache();

    // The reply kept for the path asked (below the root) by a client that does or does not
    // accept gzip, while its files are unchanged; else nullptr. The cache keeps its
    // reference: the caller queues the reply and destroys nothing.
    MHD_Response *find(int root_fd, std::string_view asked, bool gzip);

    // What a kept reply was made from: the file sent and its precompressed copy, each
    // below the root with the state it had before the reply was decided.
    struct Sources {
        std::string sent;
        FileState sent_state;
        std::string packed;
        FileState packed_state;
    };
    // Takes over the caller's reference to response, the reply to asked.
    void keep(std::string_view asked, bool gzip, Sources sources, MHD_Response *response);

private:
    struct Entry {
        std::string asked;
        bool gzip = false;
        Sources sources;
        MHD_Response *response = nullptr;
        uint64_t used = 0;  // turn of its last use: the smallest goes first
    };
    std::vector<Entry> entries_;
    uint64_t turn_ = 0;
};

}  // namespace webs
