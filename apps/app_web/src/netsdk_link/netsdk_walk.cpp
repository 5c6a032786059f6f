#include "netsdk_link/netsdk_link.h"

#include "common/log.h"
#include "common/text_field.h"

#include <cstring>
#include <ctime>
#include <new>
#include <sys/stat.h>

namespace {

// "hh:mm:ss" (values below 100), then " " and mark when given; out has room for 64.
void format_time(char *out, const struct tm &tm, const char *mark)
{
    const int parts[] = {tm.tm_hour, tm.tm_min, tm.tm_sec};
    char *p = out;
    for (int part : parts) {
        if (p != out)
            *p++ = ':';
        *p++ = static_cast<char>('0' + part / 10 % 10);
        *p++ = static_cast<char>('0' + part % 10);
    }
    *p = '\0';
    if (mark) {
        *p++ = ' ';
        copy_field(p, kNetsdkTextSize - static_cast<size_t>(p - out), mark);
    }
}

void serch_dir(const char *dir, NETSDK_LINK_NODE *node, const char *record, int depth);

// Walks subdirectory name of dir (at level depth) into a node of its own behind node.
void walk_subdir(const char *dir, const char *name, NETSDK_LINK_NODE *node, const char *record, int depth)
{
    char path[kNetsdkDirPathSize];
    if (!netsdk_join_path(path, sizeof path, dir, name)) {
        HTTP_ERROR("dir path too long, skipped:%s/%s\n", dir, name);
        return;
    }
    if (depth > kNetsdkMaxDepth) {
        HTTP_ERROR("dir too deep, not walked:%s\n", path);
        return;
    }
    // The scratch node collects the subdirectory's files and, behind it, the nodes of the
    // directories below it; only a copy of the scratch node itself joins the result.
    NetsdkLinkPtr scratch(new (std::nothrow) NETSDK_LINK_NODE);
    if (!scratch) {
        HTTP_ERROR("link newnode malloc fail\n");
        return;
    }
    copy_field(scratch->dir_name, sizeof scratch->dir_name, name);
    serch_dir(path, scratch.get(), record, depth);
    NETSDK_LINK_INS_HEAD_LINK(node, scratch.get());  // on failure the directory is left out
    HTTP_PRINT("path:%s\n", path);
}

// Adds the file name of dir to node's table; false when the table has no more room.
bool add_file(const char *dir, const char *name, NETSDK_LINK_NODE *node, const char *record)
{
    NETSDK_FILE_INFO entry{};
    char path[kNetsdkFilePathSize];
    if (netsdk_join_path(path, sizeof path, dir, name))
        NETSDK_GET_FILE_stat(path, &entry, record);  // a failed stat leaves the entry empty: not listed
    else
        HTTP_ERROR("file path too long, skipped:%s/%s\n", dir, name);
    if (node->files.append(entry))
        return true;
    HTTP_ERROR("file table malloc fail:%s\n", dir);
    return false;
}

// depth is the level of dir below the walked root (0 for the root).
void serch_dir(const char *dir, NETSDK_LINK_NODE *node, const char *record, int depth)
{
    DirPtr stream(opendir(dir));
    if (!stream)
        return;
    int index = -1;
    while (const dirent *entry = readdir(stream.get())) {
        const char *name = entry->d_name;
        if (netsdk_is_dir_entry(entry)) {
            if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0)
                walk_subdir(dir, name, node, record, depth + 1);
            continue;
        }
        if (strcmp(name, kNetsdkListFileName) == 0) {
            HTTP_DEBUG("storage dir file :%s\n", name);
            continue;
        }
        ++index;
        if (!add_file(dir, name, node, record))
            return;
        node->last_index = index;
        // Whatever the directory delivers after its 1024th file, subdirectories included,
        // is not read.
        if (index >= kNetsdkMaxFiles - 1)
            return;
    }
}

} // namespace

bool netsdk_join_path(char *out, size_t size, const char *dir, const char *name)
{
    size_t dir_len = strlen(dir);
    size_t name_len = strlen(name);
    if (dir_len + 1 + name_len >= size)
        return false;
    memcpy(out, dir, dir_len);
    out[dir_len] = '/';
    memcpy(out + dir_len + 1, name, name_len + 1);
    return true;
}

int NETSDK_GET_FILE_stat(const char *path, NETSDK_FILE_INFO *entry, const char *record)
{
    if (!path || !entry) {
        HTTP_ERROR("Invalid parameter path:%s\n", path ? path : "(null)");
        return -1;
    }
    struct stat64 st;
    if (stat64(path, &st) != 0) {
        HTTP_ERROR("get file stat:%s\n", path);
        return -1;
    }
    entry->size = static_cast<uint64_t>(st.st_size);
    struct tm changed {};
    time_t ctime = st.st_ctime;
    localtime_r(&ctime, &changed);

    const char *slash = strrchr(path, '/');
    const char *name = path;
    if (slash)
        name = slash + 1;
    else
        HTTP_ERROR("parse file name fail:%s\n", path);
    copy_field(entry->name, sizeof entry->name, name);

    bool recording = record && strstr(record, entry->name) != nullptr;
    format_time(entry->time, changed, recording ? kNetsdkRecordingMark : nullptr);
    return 0;
}

void NETSDK_LINK_SERCH_DIR(const char *dir, NETSDK_LINK_NODE *node, const char *record)
{
    if (!dir || !node)
        return;
    serch_dir(dir, node, record, 0);
}
