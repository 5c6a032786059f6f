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

// An integer handle that Close releases (a file descriptor, a nanomsg socket); -1 holds
// nothing.
template <class Close>
class UniqueHandle {
public:
    UniqueHandle() = default;
    explicit UniqueHandle(int handle) : handle_(handle) {}
    UniqueHandle(UniqueHandle &&other) noexcept : handle_(other.release()) {}
    UniqueHandle &operator=(UniqueHandle &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueHandle(const UniqueHandle &) = delete;
    UniqueHandle &operator=(const UniqueHandle &) = delete;
    ~UniqueHandle() { reset(); }

    int get() const { return handle_; }
    explicit operator bool() const { return handle_ >= 0; }
    int release() { return std::exchange(handle_, -1); }
    void reset(int handle = -1)
    {
        if (handle_ >= 0)
            Close()(handle_);
        handle_ = handle;
    }

private:
    int handle_ = -1;
};

struct FdCloser {
    void operator()(int fd) const { ::close(fd); }
};
// A file descriptor.
using UniqueFd = UniqueHandle<FdCloser>;
