#include "network/storage.h"

#include "common/log.h"
#include "network/json_text.h"

#include <cstring>

// The listing is written as the text that cJSON's formatted printer makes of the array
// [{"dir_name", "file_info": [{"size", "time", "name"}, ...]}, ...]; a tree of every file
// would cost several times the text.
namespace {

// Bytes a listed file adds beyond its packed entry: keys, tabs, newlines, quotes, separators
// and the size's digits. Only a first guess at the text's size; the buffer grows if needed.
constexpr size_t kTextPerFile = 64;
constexpr size_t kTextPerDir = 48;

size_t expected_size(const NETSDK_LINK_NODE *head)
{
    size_t size = 2;
    for (const NETSDK_LINK_NODE *node = head->next; node; node = node->next)
        size += kTextPerDir + kNetsdkTextSize + node->files.bytes() + kTextPerFile * node->files.count();
    return size;
}

// The node's entries (0 to last_index: the node holds no more), leaving out those that hold
// no file.
void write_files(JsonTextBuffer &text, const NETSDK_LINK_NODE *node)
{
    text.raw("[");
    bool first = true;
    node->files.for_each([&](const NetsdkFileView &file) {
        if (file.name.empty())
            return;
        text.raw(first ? "{\n\t\t\t\t\"size\":\t" : ", {\n\t\t\t\t\"size\":\t");
        first = false;
        text.number(static_cast<double>(file.size));
        text.raw(",\n\t\t\t\t\"time\":\t");
        text.string(file.time);
        text.raw(",\n\t\t\t\t\"name\":\t");
        text.string(file.name);
        text.raw("\n\t\t\t}");
    });
    text.raw("]");
}

} // namespace

int formatVideoDirParamJSON(char **out, const NETSDK_LINK_NODE *head)
{
    if (!out || !head) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    *out = nullptr;
    JsonTextBuffer text(expected_size(head));
    if (text.failed()) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    text.raw("[");
    for (const NETSDK_LINK_NODE *node = head->next; node; node = node->next) {
        text.raw(node == head->next ? "{\n\t\t\"dir_name\":\t" : ", {\n\t\t\"dir_name\":\t");
        text.string(std::string_view(node->dir_name, strnlen(node->dir_name, kNetsdkTextSize - 1)));
        text.raw(",\n\t\t\"file_info\":\t");
        write_files(text, node);
        text.raw("\n\t}");
    }
    text.raw("]");
    *out = text.release();
    return 0;
}
