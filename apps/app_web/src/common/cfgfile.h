// Locked whole-file reads and writes of the configuration files.
//
// Records (fixed-size binary files) go through http_get_cfgfile / http_set_cfgfile, texts
// through http_get_datafile / http_set_jsoncfgfile / http_get_jsoncfgfile. Every single
// file access holds mutex_common. Writers replace the target atomically: the new content
// goes into a temporary file beside it, is flushed to disk and renamed over the target, so
// a crash or power cut leaves either the old or the new file, never a torn one. A rewritten
// file keeps its mode and owner; a new one is created 0664 (records) or 0666 (texts) before
// the umask.
#pragma once

#include <mutex>

extern std::mutex mutex_common;

// Results: 0 success, -1 missing file or wrong size (readers of records), -2 missing or
// zero argument, -7 open, read or write failed.
int http_get_cfgfile(const char *cfg_name, void *cfg_data, long size);
int http_set_cfgfile(const char *cfg_name, const void *cfg_data, int size);

// Heap text (the file's bytes plus a terminating zero; the caller frees it) or nullptr.
// *get_data_length is the number of file bytes, 0 when nothing is returned.
char *http_get_datafile(const char *cfg_name, int *get_data_length);
int http_set_jsoncfgfile(const char *cfg_name, const char *text);
char *http_get_jsoncfgfile(const char *cfg_name);
