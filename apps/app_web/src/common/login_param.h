// The credentials a browser presents: from a login body or from a request's query, checked
// by the device application and kept by the session that a login opens.
#pragma once

#include <cstddef>

constexpr size_t LOGIN_FIELD_SIZE = 64;  // user name or password, terminator included

struct LoginParam {
    char username[LOGIN_FIELD_SIZE];
    char password[LOGIN_FIELD_SIZE];
};
