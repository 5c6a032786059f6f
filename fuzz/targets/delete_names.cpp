// The recording deletion with any names: whatever is named, nothing outside the storage root
// is removed, and neither is the root itself.
//
// Input: a byte for the mode (-1, 0, 1 or 2), then the names, one per line.
#include "fuzz_target.h"
#include "common/text_field.h"
#include "network/storage.h"
#include "support/device.h"

#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

std::unique_ptr<StorageFileParam> param;

void init()
{
    fuzzdev::lay_out();
    param = std::make_unique<StorageFileParam>();
}

void run(const uint8_t *data, size_t size)
{
    if (size == 0)
        return;
    memset(param.get(), 0, sizeof *param);
    param->mode = data[0] % 4 - 1;
    int i = 0;
    for (std::string_view name : fuzz_split(data + 1, size - 1, '\n', kStorageMaxNames)) {
        std::string text(name.substr(0, name.find('\0')));
        copy_field(param->file[i++], kStorageNameSize, text.c_str());
    }
    int rc = DEVSDK_Delect_StorageFile(param.get());
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == -2, "0, -1 or -2");
    for (const char *const *c = fuzzdev::canaries(); *c; ++c)
        FUZZ_CHECK(access(*c, F_OK) == 0, *c);
    fuzzdev::restore();
}

} // namespace

FUZZ_TARGET("delete_names", init, run);
