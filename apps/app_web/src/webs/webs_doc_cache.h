// Ready replies of small documents sent whole, so that a page asked for again goes out
// without reading its file or building its headers anew. Each request still finds and opens
// its file the whole way (links, root, routes, the precompressed copy); the kept reply then
// serves only while the file opened is the one it was made from: same device, inode, size,
// modification and change times. The longest unused entry makes room for a new one. Used
// on the event loop only.
#pragma once

#include <cstdint>
#include <microhttpd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace webs {

// What a reply depends on besides the file's state.
struct DocumentKey {
    std::string_view path;  // the file sent, resolved
    const char *type;  // its Content-Type, one of the layer's fixed texts
    bool packed;       // sent with Content-Encoding: gzip
    bool vary;         // carries Vary: Accept-Encoding
};

class DocumentCache {
public:
    DocumentCache() = default;
    DocumentCache(const DocumentCache &) = delete;
    DocumentCache &operator=(const DocumentCache &) = delete;
    ~DocumentCache();

    // The reply kept for key while its file is in the state st, or nullptr. The cache keeps
    // its reference: the caller queues the reply and destroys nothing.
    MHD_Response *find(const DocumentKey &key, const struct stat &st);
    // Takes over the caller's reference to response, the reply for key with its file in the
    // state st.
    void keep(const DocumentKey &key, const struct stat &st, MHD_Response *response);

private:
    struct Entry {
        std::string path;
        const char *type = nullptr;
        bool packed = false, vary = false;
        struct stat st {};
        MHD_Response *response = nullptr;
        uint64_t used = 0;  // turn of its last use: the smallest goes first
        bool is(const DocumentKey &k) const
        {
            return k.type == type && k.packed == packed && k.vary == vary && k.path == path;
        }
    };
    std::vector<Entry> entries_;
    uint64_t turn_ = 0;
};

}  // namespace webs
