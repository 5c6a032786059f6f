// Helpers of the recording storage tests: cards built under the real storage root, the walk's
// result as plain values, and the listing as cJSON itself prints it.
#pragma once

#include "netsdk_link/netsdk_link.h"

#include <cstdint>
#include <string>
#include <vector>

namespace st {

constexpr char kRoot[] = "/mnt/app/web_root/sd";

// An empty card: the storage root holding only its list file.
void fresh_card();
// A file of the given (sparse) size.
void make_file(const std::string &path, uint64_t size = 0);
// Entry names of dir in the order the directory listing delivers them, without "." and "..".
std::vector<std::string> listing_order(const std::string &dir);

struct File {
    uint64_t size;
    std::string time, name;
};
struct Dir {
    std::string name;
    int last_index;
    std::vector<File> files;  // every entry, empty ones included
};
std::vector<Dir> chain_of(const NETSDK_LINK_NODE *head);

// cJSON_Print of the listing built as a cJSON tree from the list.
std::string printed_by_cjson(const NETSDK_LINK_NODE *head);

// Whether err holds the red error line with message, written by func.
bool has_error(const std::string &err, const std::string &func, const std::string &message);

// What a handler answered and wrote.
struct Outcome {
    int rc;
    std::string reply, out, err;
};
Outcome run_action(int (*handler)(const char *, char **), const char *body);

} // namespace st
