#include "accounts_support.h"

#include "testsupport.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

namespace accounts {

std::string image(const std::vector<Account> &accounts)
{
    std::string img(2048, '\0');
    for (size_t i = 0; i < accounts.size(); ++i) {
        img.replace(128 * i, accounts[i].first.size(), accounts[i].first);
        img.replace(128 * i + 64, accounts[i].second.size(), accounts[i].second);
    }
    return img;
}

std::string default_image() { return image({{"admin", kTavelDigest}}); }

void fresh_device()
{
    ts::reset_device_tree();
    ts::make_dirs(kConfigDir);
}

bool has_error_line(const std::string &err, const std::string &message)
{
    return err.find(">: " + message + "\033[0m") != std::string::npos;
}

ino_t inode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

ReadOnlyDir::ReadOnlyDir(const std::string &dir) : dir_(dir)
{
    if (mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error("bind mount of " + dir + ": " + strerror(errno));
    if (mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        int e = errno;
        umount2(dir.c_str(), MNT_DETACH);
        throw std::runtime_error("read-only remount of " + dir + ": " + strerror(e));
    }
}

ReadOnlyDir::~ReadOnlyDir() { umount2(dir_.c_str(), MNT_DETACH); }

} // namespace accounts
