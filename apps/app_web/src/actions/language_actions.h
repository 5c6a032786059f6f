// "get_Language_Format" and "set_Language_Format": the page language record language_para.
#pragma once

// Both store a heap reply text in *out_json (the caller frees it) and return 0 on success,
// a negative code on failure.
int actionGetLanguageFormat(const char *in_json, char **out_json);
int actionSetLanguageFormat(const char *in_json, char **out_json);
