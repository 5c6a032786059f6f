// The recording actions of the SD card: list every recording directory with its files, and
// delete named files or whole directories under the storage root.
#pragma once

#include "netsdk_link/netsdk_link.h"

#include <cstddef>

// The storage root. Paths are built as root + "/" + name, so they carry a doubled "/".
constexpr char kStorageRoot[] = "/mnt/app/web_root/sd/";
// The card counts as mounted only while this file exists and may be written.
constexpr char kStorageListFile[] = "/mnt/app/web_root/sd/recodefilelist.txt";
// Names one deletion request carries at most; later ones are ignored.
constexpr int kStorageMaxNames = 1024;
// Room of one name, terminator included (names are cut to 63).
constexpr size_t kStorageNameSize = 64;
// Room of a path under the root, terminator included.
constexpr size_t kStoragePathSize = 128;

// A deletion request.
struct StorageFileParam {
    int mode;  // 0: each name is a directory to empty and remove; 1: each name is a file
    char file[kStorageMaxNames][kStorageNameSize];  // relative to the root; "" ends the list
};

// Handlers of "get_video_directory" and "set_storage_deletefile": a heap reply text goes to
// *out_json (the caller frees it); 0 or a negative code.
int actiongetVideoDirectory(const char *in_json, char **out_json);
int actionSetStorageDelectFile(const char *in_json, char **out_json);

// The list behind head as the formatted JSON array of the listing. 0 with a heap text in
// *out (nullptr when printing ran out of memory), -2 without a list, -15 without memory.
int formatVideoDirParamJSON(char **out, const NETSDK_LINK_NODE *head);
// Fills param from a request body: "mode" and the "file" names. 0, -2 or -15.
int getStorageFileParamFromJSON(const char *text, StorageFileParam *param);
// Carries out a deletion request; every name is checked first, and a name that could reach
// outside the root refuses the whole request. 0, -1 or -2.
int DEVSDK_Delect_StorageFile(const StorageFileParam *param);
// Removes the files directly inside path, then the directory. 0 or -1.
int DEVSDK_Rm_Dir(const char *path);
