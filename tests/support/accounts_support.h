// Helpers of the account tests: account files built byte by byte, independent of the
// code under test, and a read-only view of a directory.
#pragma once

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace accounts {

// Inline, so that tests may use them in their own globals.
inline const std::string kConfigDir = "/mnt/usr/config/app_parameters";
inline const std::string kAccountFile = kConfigDir + "/usermgnt_para";
inline const std::string kTavelDigest = "45b5d899e8cbbf16302d286d2c2f8e9d";  // of the default password "tavel"

using Account = std::pair<std::string, std::string>;  // name, digest text

// The 2048-byte file holding these accounts in slots 0, 1, ... and zeros elsewhere.
std::string image(const std::vector<Account> &accounts);
// The file of a fresh device: "admin" with the digest of "tavel".
std::string default_image();

// Empties the device tree and makes the configuration directory.
void fresh_device();

// Whether captured stderr holds the red error line with this message.
bool has_error_line(const std::string &err, const std::string &message);

// The file's inode: the writer replaces files by renaming, so an unchanged inode means the
// file was not rewritten.
ino_t inode_of(const std::string &path);

// Makes dir read-only (a read-only bind mount over itself) for the object's lifetime.
class ReadOnlyDir {
public:
    explicit ReadOnlyDir(const std::string &dir);
    ~ReadOnlyDir();
    ReadOnlyDir(const ReadOnlyDir &) = delete;
    ReadOnlyDir &operator=(const ReadOnlyDir &) = delete;

private:
    std::string dir_;
};

} // namespace accounts
