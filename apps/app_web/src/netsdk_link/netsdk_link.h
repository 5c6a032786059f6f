// The walk over the SD card's recording directories: a singly linked list of directory
// nodes, each holding the files that directory has. The list belongs to the request that
// builds it: NETSDK_CREATE_LINK, NETSDK_LINK_SERCH_DIR, read, NETSDK_LINK_DIS_LINK (or hold
// the head in a NetsdkLinkPtr).
#pragma once

#include "common/growing_buffer.h"
#include "common/owners.h"

#include <cstddef>
#include <cstdint>
#include <dirent.h>
#include <memory>
#include <string_view>

// Room of a file's time and name and of a directory's name, terminator included.
constexpr size_t kNetsdkTextSize = 64;
// A directory read stops once it has taken this many files; the rest of it is not seen.
constexpr int kNetsdkMaxFiles = 1024;
// Path texts: a file path and a directory path; a longer path is skipped, never cut.
constexpr size_t kNetsdkFilePathSize = 128;
constexpr size_t kNetsdkDirPathSize = 512;
// Levels below the walked root that the walk descends into; bounds the stack and the open
// directories on a card with a bind-mount loop or a pathological tree.
constexpr int kNetsdkMaxDepth = 16;
// The card's list file: never listed, at any level.
constexpr char kNetsdkListFileName[] = "recodefilelist.txt";
// Appended to the time of a file that is being recorded.
constexpr char kNetsdkRecordingMark[] = "recording...";

// One file, as NETSDK_GET_FILE_stat fills it. An entry whose name is empty holds no file.
struct NETSDK_FILE_INFO {
    uint64_t size;                // st_size
    char time[kNetsdkTextSize];   // local time of the last status change, "%02d:%02d:%02d"
    char name[kNetsdkTextSize];   // the name without its directory, cut to 63
};

// One entry as stored in a node's table.
struct NetsdkFileView {
    uint64_t size;
    std::string_view time;
    std::string_view name;
};

// The files of one directory in the order they were added. A card can hold tens of
// thousands of files, so the entries are packed one after another (the size, then the time
// and the name as length-prefixed texts) and the table grows with what it holds.
class NetsdkFileTable {
public:
    NetsdkFileTable();
    NetsdkFileTable(const NetsdkFileTable &) = delete;
    NetsdkFileTable &operator=(const NetsdkFileTable &) = delete;

    // Adds a copy of the entry; false when memory runs out (the table is unchanged).
    bool append(const NETSDK_FILE_INFO &entry);
    // Makes this table an exact-size copy of other; false when memory runs out (unchanged).
    bool assign(const NetsdkFileTable &other);
    int count() const { return count_; }
    // Bytes the entries take; a guide to the size of their JSON text.
    size_t bytes() const { return entries_.size(); }

    // Calls visit(NetsdkFileView) for each entry in order.
    template <class Visit>
    void for_each(Visit &&visit) const
    {
        const unsigned char *p = reinterpret_cast<const unsigned char *>(entries_.data());
        for (int i = 0; i < count_; ++i)
            visit(unpack(&p));
    }

private:
    static NetsdkFileView unpack(const unsigned char **p);

    GrowingBuffer entries_;
    int count_ = 0;
};

// One directory.
struct NETSDK_LINK_NODE {
    NetsdkFileTable files;
    // Index of the last entry the walk wrote: the count minus one, and 0 when it has none.
    int last_index = 0;
    char dir_name[kNetsdkTextSize] = "";  // the directory's own name, cut to 63
    NETSDK_LINK_NODE *next = nullptr;
};

// A new head node (only its next set), or nullptr after "link head malloc fail\n".
NETSDK_LINK_NODE *NETSDK_CREATE_LINK();
// Links a copy of src (name, last_index and files, not its next) directly behind head.
// 0, or -1 after "link newnode malloc fail\n" with the list unchanged.
int NETSDK_LINK_INS_HEAD_LINK(NETSDK_LINK_NODE *head, const NETSDK_LINK_NODE *src);
// Frees the nodes behind head from the front, then head. Returns 0.
int NETSDK_LINK_DIS_LINK(NETSDK_LINK_NODE *head);
// Fills entry from the file at path; a file whose name occurs in record gets the recording
// mark behind its time. 0, or -1 (entry untouched when stat fails).
int NETSDK_GET_FILE_stat(const char *path, NETSDK_FILE_INFO *entry, const char *record);
// Walks directory dir: its files go into node, each subdirectory becomes a node directly
// behind node (so they end up in the reverse of the listing's order). Subdirectories of
// those are walked too but left out. record may be nullptr.
void NETSDK_LINK_SERCH_DIR(const char *dir, NETSDK_LINK_NODE *node, const char *record);

// Joins dir, "/" and name into out (size bytes); false when the path does not fit, so a long
// path is never cut into the path of some other file.
bool netsdk_join_path(char *out, size_t size, const char *dir, const char *name);

// Whether a directory entry counts as a directory: the type's DT_DIR bit, without a stat.
inline bool netsdk_is_dir_entry(const dirent *entry) { return (entry->d_type & DT_DIR) != 0; }

struct NetsdkLinkDeleter {
    void operator()(NETSDK_LINK_NODE *head) const { NETSDK_LINK_DIS_LINK(head); }
};
// A whole list, freed with NETSDK_LINK_DIS_LINK.
using NetsdkLinkPtr = std::unique_ptr<NETSDK_LINK_NODE, NetsdkLinkDeleter>;
