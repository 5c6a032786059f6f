#include "storage_support.h"

#include "common/owners.h"
#include "testsupport.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace st {

void fresh_card()
{
    ts::reset_device_tree();
    ts::make_dirs(kRoot);
    ts::write_file(std::string(kRoot) + "/recodefilelist.txt", "");
}

void make_file(const std::string &path, uint64_t size)
{
    ts::write_file(path, "");
    if (size && truncate(path.c_str(), static_cast<off_t>(size)) != 0)
        throw std::runtime_error("cannot size " + path);
}

std::vector<std::string> listing_order(const std::string &dir)
{
    std::vector<std::string> names;
    DirPtr stream(opendir(dir.c_str()));
    if (!stream)
        throw std::runtime_error("cannot list " + dir);
    while (dirent *e = readdir(stream.get()))
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
            names.push_back(e->d_name);
    return names;
}

std::vector<Dir> chain_of(const NETSDK_LINK_NODE *head)
{
    std::vector<Dir> dirs;
    for (const NETSDK_LINK_NODE *node = head->next; node; node = node->next) {
        Dir d{node->dir_name, node->last_index, {}};
        node->files.for_each([&](const NetsdkFileView &f) {
            d.files.push_back({f.size, std::string(f.time), std::string(f.name)});
        });
        dirs.push_back(d);
    }
    return dirs;
}

std::string printed_by_cjson(const NETSDK_LINK_NODE *head)
{
    CJsonPtr array(cJSON_CreateArray());
    for (const Dir &d : chain_of(head)) {
        cJSON *dir = cJSON_CreateObject();
        cJSON_AddItemToArray(array.get(), dir);
        cJSON_AddStringToObject(dir, "dir_name", d.name.c_str());
        cJSON *files = cJSON_AddArrayToObject(dir, "file_info");
        for (int i = 0; i <= d.last_index && i < static_cast<int>(d.files.size()); ++i) {
            const File &f = d.files[i];
            if (f.name.empty())
                continue;
            cJSON *file = cJSON_CreateObject();
            cJSON_AddItemToArray(files, file);
            cJSON_AddNumberToObject(file, "size", static_cast<double>(f.size));
            cJSON_AddStringToObject(file, "time", f.time.c_str());
            cJSON_AddStringToObject(file, "name", f.name.c_str());
        }
    }
    HeapText text(cJSON_Print(array.get()));
    return text.get();
}

bool has_error(const std::string &err, const std::string &func, const std::string &message)
{
    return err.find(", " + func + ">: " + message + "\033[0m") != std::string::npos;
}

Outcome run_action(int (*handler)(const char *, char **), const char *body)
{
    Outcome o;
    char *reply = nullptr;
    {
        ts::Capture out(1), err(2);
        o.rc = handler(body, &reply);
        o.err = err.text();
        o.out = out.text();
    }
    HeapText owner(reply);
    o.reply = reply ? reply : "<none>";
    return o;
}

} // namespace st
