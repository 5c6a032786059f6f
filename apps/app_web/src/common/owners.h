// Owners for the resources the server takes: each releases what it holds on every exit path.
#pragma once

#include <cjson/cJSON.h>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

struct CJsonDeleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};
// A parsed or built cJSON tree.
using CJsonPtr = std::unique_ptr<cJSON, CJsonDeleter>;

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};
// A heap text from malloc or cJSON's printer (cJSON uses malloc/free here).
using HeapText = std::unique_ptr<char, FreeDeleter>;

struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct PipeCloser {
    void operator()(FILE *f) const { pclose(f); }
};
// A stream from popen.
using PipePtr = std::unique_ptr<FILE, PipeCloser>;

// A file descriptor; -1 holds nothing.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
