#include "common/cfgfile.h"

#include "common/log.h"
#include "common/owners.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

std::mutex mutex_common;

namespace {

// Permission bits of new files before the process umask. A file that exists keeps its own.
constexpr mode_t kRecordMode = 0664;
constexpr mode_t kTextMode = 0666;
// The replacement of an existing file is readable by its owner only until it carries the
// old file's mode: the account file holds password digests.
constexpr mode_t kPrivateMode = 0600;

enum class ReplaceStep { Done, Open, Write };

// The temporary file lives beside the target so that the rename stays on one file system.
// Its name is fixed per target: writes of one file are serialised by mutex_common, and a
// leftover from a killed writer is removed by the next write.
std::string temp_path_for(const char *target)
{
    const char *slash = strrchr(target, '/');
    const char *base = slash ? slash + 1 : target;
    std::string path(target, static_cast<size_t>(base - target));
    path += '.';
    path += base;
    path += ".new";
    return path;
}

void sync_parent_dir(const char *target)
{
    std::string dir(target);
    size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : dir.substr(0, slash));
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        fsync(fd.get());
}

// Gives the new file the owner and permission bits of the file it replaces (a rename would
// otherwise leave the new file's own). False with errno set when the owner cannot be kept:
// then the old file stays rather than one that others may read or the owner may not.
bool keep_identity(int fd, const struct stat &old)
{
    struct stat now;
    if (fstat(fd, &now) != 0)
        return false;
    // fchown clears set-id bits, so the mode is set after it.
    if ((now.st_uid != old.st_uid || now.st_gid != old.st_gid) && fchown(fd, old.st_uid, old.st_gid) != 0)
        return false;
    return fchmod(fd, old.st_mode & 07777) == 0;
}

// Writes data as the new content of target, or leaves target untouched. A rewritten file
// keeps its mode and owner; a new one gets mode (before the umask). On failure errno
// describes the failed step and no temporary file remains. Caller holds mutex_common.
ReplaceStep replace_file(const char *target, const void *data, size_t len, mode_t mode)
{
    struct stat old;
    bool rewrite = stat(target, &old) == 0 && S_ISREG(old.st_mode);
    std::string temp = temp_path_for(target);
    unlink(temp.c_str());
    UniqueFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, rewrite ? kPrivateMode : mode));
    if (!fd)
        return ReplaceStep::Open;

    bool ok = !rewrite || keep_identity(fd.get(), old);
    if (ok && len > 0) {
        ssize_t n = write(fd.get(), data, len);
        if (n <= 0 || static_cast<size_t>(n) != len) {
            if (n >= 0)
                errno = ENOSPC;
            ok = false;
        }
    }
    ok = ok && fsync(fd.get()) == 0;
    int saved = errno;
    ok = (close(fd.release()) == 0) && ok;
    if (ok)
        ok = rename(temp.c_str(), target) == 0;
    else
        errno = saved;
    if (!ok) {
        saved = errno;
        unlink(temp.c_str());
        errno = saved;
        return ReplaceStep::Write;
    }
    sync_parent_dir(target);
    return ReplaceStep::Done;
}

} // namespace

int http_get_cfgfile(const char *cfg_name, void *cfg_data, long size)
{
    if (!cfg_name || !cfg_data || size == 0) {
        // contract: exact bytes
        HTTP_ERROR("cfg_name[%p] cfg_data[%p] size[%ld] invailed\n", static_cast<const void *>(cfg_name),
                   cfg_data, size);
        return -2;
    }
    struct stat st;
    if (stat(cfg_name, &st) != 0) {
        int e = errno;
        HTTP_ERROR("stat file:%s error=%d(%s)\n", cfg_name, e, strerror(e));
        return -1;
    }
    // Compared in the file's own width: cut to a 32-bit long, a file 4 GiB larger would match.
    if (st.st_size != static_cast<off_t>(size)) {
        HTTP_ERROR("%s (%lld != %ld)\n", cfg_name, static_cast<long long>(st.st_size), size);
        return -1;
    }

    std::lock_guard<std::mutex> lock(mutex_common);
    UniqueFd fd(open(cfg_name, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        int e = errno;
        HTTP_ERROR(" open file[%s] failed! errno=%d(%s)\n", cfg_name, e, strerror(e));
        return -7;
    }
    ssize_t n = read(fd.get(), cfg_data, static_cast<size_t>(size));
    if (n <= 0 || n != size) {
        int e = errno;
        HTTP_ERROR("read file[%s] failed! errno=%d(%s)\n", cfg_name, e, strerror(e));
        return -7;
    }
    return 0;
}

int http_set_cfgfile(const char *cfg_name, const void *cfg_data, int size)
{
    if (!cfg_name || !cfg_data || size <= 0) {
        // contract: exact bytes
        HTTP_ERROR("cfg_name[%p] cfg_data[%p] size[%d] invailed\n", static_cast<const void *>(cfg_name),
                   cfg_data, size);
        return -2;
    }
    std::lock_guard<std::mutex> lock(mutex_common);
    switch (replace_file(cfg_name, cfg_data, static_cast<size_t>(size), kRecordMode)) {
    case ReplaceStep::Done:
        return 0;
    case ReplaceStep::Open: {
        int e = errno;
        HTTP_ERROR(" open/creat file[%s] failed! errno=%d(%s)\n", cfg_name, e, strerror(e));
        return -7;
    }
    case ReplaceStep::Write:
        break;
    }
    int e = errno;
    HTTP_ERROR(" write file[%s] failed! errno=%d(%s)\n", cfg_name, e, strerror(e));
    return -7;
}

char *http_get_datafile(const char *cfg_name, int *get_data_length)
{
    if (!cfg_name || !get_data_length) {
        // contract: exact bytes
        HTTP_ERROR("cfg_name[%p] get_data_length[%p] invailed\n", static_cast<const void *>(cfg_name),
                   static_cast<void *>(get_data_length));
        return nullptr;
    }
    *get_data_length = 0;
    std::lock_guard<std::mutex> lock(mutex_common);
    struct stat st;
    if (stat(cfg_name, &st) != 0 || st.st_size <= 0)
        return nullptr;
    if (st.st_size >= INT32_MAX) {
        HTTP_ERROR("malloc size[%d] failed\n", -1);
        return nullptr;
    }
    int size = static_cast<int>(st.st_size);
    HeapText text(static_cast<char *>(malloc(static_cast<size_t>(size) + 1)));
    if (!text) {
        HTTP_ERROR("malloc size[%d] failed\n", size + 1);
        return nullptr;
    }
    UniqueFd fd(open(cfg_name, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        int e = errno;
        HTTP_ERROR(" open file[%s] failed! errno=%d(%s)\n", cfg_name, e, strerror(e));
        return nullptr;
    }
    ssize_t n = read(fd.get(), text.get(), static_cast<size_t>(size));
    if (n <= 0) {
        int e = errno;
        HTTP_ERROR("read file[%s] fail=%d! errno=%d(%s)\n", cfg_name, static_cast<int>(n), e, strerror(e));
        return nullptr;
    }
    if (n != size) {
        HTTP_ERROR("read file[%s] len=%d != %d\n", cfg_name, static_cast<int>(n), size);
        return nullptr;
    }
    text.get()[size] = '\0';
    *get_data_length = size;
    return text.release();
}

int http_set_jsoncfgfile(const char *cfg_name, const char *text)
{
    if (!cfg_name || !text) {
        errno = EINVAL;
        perror("fopen");
        return -7;
    }
    std::lock_guard<std::mutex> lock(mutex_common);
    switch (replace_file(cfg_name, text, strlen(text), kTextMode)) {
    case ReplaceStep::Done:
        return 0;
    case ReplaceStep::Open:
        perror("fopen");
        return -7;
    case ReplaceStep::Write:
        break;
    }
    perror("fwrite");
    return -7;
}

char *http_get_jsoncfgfile(const char *cfg_name)
{
    if (!cfg_name)
        return nullptr;
    std::lock_guard<std::mutex> lock(mutex_common);
    FilePtr f(fopen(cfg_name, "re"));
    if (!f)
        return nullptr;
    if (fseek(f.get(), 0, SEEK_END) != 0)
        return nullptr;
    long size = ftell(f.get());
    if (size < 0 || fseek(f.get(), 0, SEEK_SET) != 0)
        return nullptr;
    char *text = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
    if (!text)
        return nullptr;
    size_t n = fread(text, 1, static_cast<size_t>(size), f.get());
    text[n] = '\0';
    return text;
}
