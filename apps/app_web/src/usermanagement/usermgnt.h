// The web user accounts: one fixed-size file holding 16 account slots byte for byte.
// Every operation reads the file anew; a missing or wrong-sized file is replaced by the
// one-account default ("admin" with the digest of "tavel"), so a device always has a login.
#pragma once

#include <cstddef>

constexpr const char USERMGNT_PARA_FILE[] = "/mnt/usr/config/app_parameters/usermgnt_para";

constexpr int USERMGNT_MAX_USERS = 16;       // slots in the file; there is no header or count
constexpr size_t USERMGNT_FIELD_SIZE = 64;   // name or digest text, terminator included

// One account slot; both fields empty marks a free slot. password holds the MD5 digest of
// the password as 32 lowercase hex digits, compared as text.
struct UsermgntUser {
    char user_name[USERMGNT_FIELD_SIZE];
    char password[USERMGNT_FIELD_SIZE];
};

// The whole account image, identical to the file. Used slots run unbroken from slot 0.
struct UsermgntConfig {
    UsermgntUser user[USERMGNT_MAX_USERS];
};
static_assert(sizeof(UsermgntUser) == 128 && offsetof(UsermgntUser, password) == 64,
              "an account slot is name then digest, 64 bytes each");
static_assert(sizeof(UsermgntConfig) == 2048, "usermgnt_para is exactly 2048 bytes");

// Operation codes of HTTP_Set_UsermgntConfig; any other code rewrites the image unchanged.
enum UsermgntOperation {
    USERMGNT_ADD = 0,
    USERMGNT_DELETE = 1,
    USERMGNT_CHANGE_PASSWORD = 2,
};

// Fills *config with the one-account default, without writing it.
void usermgnt_default(UsermgntConfig *config);

// Fills *config with the stored image, or with the default that it writes in its place.
// 0, or -1 when config is missing or the default could not be written.
int HTTP_Get_UsermgntConfig(UsermgntConfig *config);

// Adds, deletes (checking the given digest against the stored one) or re-digests one
// account and writes the image back. 0 done (also: delete of an unknown name, unknown
// operation); -1 missing user, unreadable image, name taken, table full, "admin" deleted,
// or write failure; -2 change of an unknown name; -3 delete with a wrong digest; -4 change
// of an account whose stored digest is empty. Refusals leave the file untouched.
int HTTP_Set_UsermgntConfig(int operation, const UsermgntUser *user);

// Whether a stored field holds exactly text. A field without terminator (a damaged file)
// holds its 64 bytes and is never read past.
bool usermgnt_field_is(const char (&field)[USERMGNT_FIELD_SIZE], const char *text);
