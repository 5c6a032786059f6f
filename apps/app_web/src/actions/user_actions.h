// The account actions "get_user_param" and "set_user_param": thin layers over the account
// store. Each stores a heap reply text in *out_json that the caller writes and frees.
#pragma once

// Lists every account with its stored digest. 0, or -1 / the formatter's code on failure.
int actionGetUserParam(const char *in_json, char **out_json);
// Adds, deletes or re-digests one account as the body says. 0, -1 for an unusable body,
// or the store's refusal code.
int actionSetUserParam(const char *in_json, char **out_json);
