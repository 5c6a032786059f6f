#include "network/storage.h"

#include "common/log.h"
#include "common/text_field.h"
#include "json2c/json_fields.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

// Whether name, joined to the root, names something strictly inside the root. Refused:
// absolute names, ".." components, paths that do not fit their text, and names that resolve
// (symbolic links followed) to the root itself or outside it, or cannot be resolved.
bool name_stays_inside(const char *name, const char *real_root, char (&path)[kStoragePathSize])
{
    if (name[0] == '/')
        return false;
    for (const char *p = name; *p;) {
        const char *end = strchrnul(p, '/');
        if (std::string_view(p, static_cast<size_t>(end - p)) == "..")
            return false;
        p = *end ? end + 1 : end;
    }
    if (!netsdk_join_path(path, sizeof path, kStorageRoot, name))
        return false;

    char real[PATH_MAX];
    if (!realpath(path, real))
        return errno == ENOENT || errno == ENOTDIR;  // nothing there: the deletion passes it over
    size_t root_len = strlen(real_root);
    return strncmp(real, real_root, root_len) == 0 && real[root_len] == '/';
}

} // namespace

int getStorageFileParamFromJSON(const char *text, StorageFileParam *param)
{
    if (!text || !param) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    CJsonPtr tree;
    const JsonField fields[] = {json_int("mode", &param->mode)};
    int rc = json_parse_fields(text, fields, LOG_HERE, &tree);
    if (rc != 0)
        return rc;
    const cJSON *names = cJSON_GetObjectItemCaseSensitive(tree.get(), "file");
    if (!cJSON_IsArray(names)) {
        HTTP_ERROR(" array is empty or error value type \n");  // contract: exact bytes
        return -2;
    }
    int i = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, names) {
        if (i == kStorageMaxNames)
            break;
        // Anything but a non-empty string leaves its slot empty, which ends the list there.
        bool named = cJSON_IsString(item) && item->valuestring && item->valuestring[0] != '\0';
        copy_field(param->file[i], kStorageNameSize, named ? item->valuestring : "");
        ++i;
    }
    return 0;
}

int DEVSDK_Delect_StorageFile(const StorageFileParam *param)
{
    if (!param || (param->mode != 0 && param->mode != 1)) {
        HTTP_ERROR("Invalid params!\n");
        return -2;
    }
    char real_root[PATH_MAX];
    if (access(kStorageRoot, F_OK) != 0 || !realpath(kStorageRoot, real_root)) {
        HTTP_ERROR("fail NO DIR! : %s\n", kStorageRoot);
        return -2;
    }
    // Every name is checked before the first deletion, so a refused request deletes nothing.
    for (int i = 0; i < kStorageMaxNames && param->file[i][0] != '\0'; ++i) {
        char name[kStorageNameSize];
        char path[kStoragePathSize];
        copy_field(name, sizeof name, param->file[i]);
        if (!name_stays_inside(name, real_root, path)) {
            HTTP_ERROR("refuse file name outside storage: %s\n", name);
            return -1;
        }
    }
    for (int i = 0; i < kStorageMaxNames; ++i) {
        char name[kStorageNameSize];
        copy_field(name, sizeof name, param->file[i]);
        if (name[0] == '\0') {
            HTTP_PRINT("remove file succeed!  len:%d", i);  // contract: exact bytes
            return 0;
        }
        char path[kStoragePathSize];
        if (!netsdk_join_path(path, sizeof path, kStorageRoot, name) || access(path, F_OK) != 0)
            continue;
        if (param->mode == 1) {
            if (unlink(path) != 0)
                HTTP_ERROR("remove file failure! path:%s\n", path);
        } else if (DEVSDK_Rm_Dir(path) != 0) {
            HTTP_ERROR("remove dir failure! path:%s\n", path);
            return -1;
        }
    }
    return 0;
}

int DEVSDK_Rm_Dir(const char *path)
{
    if (!path) {
        HTTP_ERROR("remove dir failure! path:%s\n", "(null)");
        return -1;
    }
    if (DirPtr stream{opendir(path)}) {
        while (const dirent *entry = readdir(stream.get())) {
            if (netsdk_is_dir_entry(entry))
                continue;
            char file[kStoragePathSize];
            if (!netsdk_join_path(file, sizeof file, path, entry->d_name))
                HTTP_ERROR("file path too long, skipped:%s/%s\n", path, entry->d_name);
            else if (unlink(file) != 0)
                HTTP_ERROR("remove file failure! path:%s\n", file);
        }
    }
    if (rmdir(path) != 0) {
        HTTP_ERROR("remove dir failure! path:%s\n", path);
        return -1;
    }
    return 0;
}
