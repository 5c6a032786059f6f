#include "network/storage.h"

#include "c2json/reply_text.h"
#include "common/log.h"
#include "common/memory.h"

#include <memory>
#include <new>
#include <unistd.h>

namespace {

// Marks files that are being recorded. No source for it exists on the device, so it is
// empty and marks no file.
constexpr char record_file[] = "";

constexpr char kReasonNotMounted[] = "storage device not mount";  // contract: exact bytes
constexpr char kReasonBadBody[] = "Invalid input params";
constexpr char kReasonNotDeleted[] = "set delect storage fil fail";  // contract: exact bytes

bool storage_mounted() { return access(kStorageListFile, W_OK) == 0; }

} // namespace

int actiongetVideoDirectory(const char * /*in_json*/, char **out_json)
{
    if (!out_json)
        return -2;
    if (!storage_mounted()) {
        HTTP_ERROR(" Storage device not mounted: %s", kStorageListFile);  // contract: exact bytes
        formatFailCallJSON(out_json, kReasonNotMounted);
        return -1;
    }
    NetsdkLinkPtr list(NETSDK_CREATE_LINK());
    if (!list) {
        HTTP_ERROR("create link fail \n");
        formatFailCallJSON(out_json, kReasonNotMounted);
        return -1;
    }
    HTTP_DEBUG("record_file = %s\n", record_file);
    NETSDK_LINK_SERCH_DIR(kStorageRoot, list.get(), record_file);

    char *listing = nullptr;
    int rc = formatVideoDirParamJSON(&listing, list.get());
    // Freed before the reply copies the listing, so that list, listing and reply never
    // take memory at the same time. The list is made of many small blocks, which the C
    // library keeps resident after free; hand those pages back so the reply does not add to
    // them.
    list.reset();
    release_free_memory();
    if (rc != 0 || !listing) {
        HTTP_ERROR("get Storage Param fail  return : %d\n", rc);  // contract: exact bytes
        formatFailCallJSON(out_json, kReasonNotMounted);
        return rc;
    }
    formatParamsJSON(out_json, REPLY_REASON_GOT, listing);
    return 0;
}

int actionSetStorageDelectFile(const char *in_json, char **out_json)
{
    if (!out_json)
        return -2;
    if (!storage_mounted()) {
        HTTP_ERROR(" Storage device not mounted: %d", 0);  // contract: exact bytes
        formatFailCallJSON(out_json, kReasonNotMounted);
        return -1;
    }
    // 64 KiB: kept off the stack of the thread that runs the actions.
    std::unique_ptr<StorageFileParam> param(new (std::nothrow) StorageFileParam{});
    int rc = -2;
    if (param) {
        param->mode = -1;
        rc = getStorageFileParamFromJSON(in_json, param.get());
    }
    if (rc != 0) {
        HTTP_ERROR("Invalid input params return: %d", rc);  // contract: exact bytes
        formatFailCallJSON(out_json, kReasonBadBody);
        return -1;
    }
    rc = DEVSDK_Delect_StorageFile(param.get());
    if (rc != 0) {
        HTTP_ERROR("Delect file fail! return: %d", rc);  // contract: exact bytes
        formatFailCallJSON(out_json, kReasonNotDeleted);
        return rc;
    }
    formatSuccessCallJSON(out_json, REPLY_REASON_SET);
    return 0;
}
