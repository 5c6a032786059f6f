#include "network/storage.h"

#include "c2json/json_layout.h"
#include "common/log.h"
#include "common/text_field.h"


// The listing is written as the text that cJSON's formatted printer makes of the array
// [{"dir_name", "file_info": [{"size", "time", "name"}, ...]}, ...] (c2json/json_layout.h);
// a tree of every file would cost several times the text.
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
void write_files(JsonLayout &text, const NETSDK_LINK_NODE *node)
{
    text.begin_array();
    node->files.for_each([&](const NetsdkFileView &file) {
        if (file.name.empty())
            return;
        text.element();
        text.begin_object();
        text.key("size");
        text.number(static_cast<double>(file.size));
        text.key("time");
        text.string(file.time);
        text.key("name");
        text.string(file.name);
        text.end_object();
    });
    text.end_array();
}

} // namespace

int formatVideoDirParamJSON(char **out, const NETSDK_LINK_NODE *head)
{
    if (!out || !head) {
        HTTP_ERROR("Invalid input params!\n");
        return -2;
    }
    *out = nullptr;
    JsonLayout text(expected_size(head));
    if (text.failed()) {
        HTTP_ERROR("Out of memory!\n");
        return -15;
    }
    text.begin_array();
    for (const NETSDK_LINK_NODE *node = head->next; node; node = node->next) {
        text.element();
        text.begin_object();
        text.key("dir_name");
        text.string(field_text(node->dir_name));
        text.key("file_info");
        write_files(text, node);
        text.end_object();
    }
    text.end_array();
    *out = text.release();
    return 0;
}
