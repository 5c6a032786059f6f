// Local password check against the account store (used where no device application is
// asked, e.g. the watermark upload).
#pragma once

// 1 when an account's name equals username and its stored digest text equals password
// exactly (case-sensitive; password is the 32-digit hex digest); otherwise 0.
int check_user_pass_valid(const char *username, const char *password);
