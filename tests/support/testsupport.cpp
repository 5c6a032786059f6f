#include "testsupport.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace ts {

std::string bin_path(const std::string &name) { return std::string(WEB_BIN_DIR) + "/" + name; }
std::string source_path(const std::string &relative) { return std::string(WEB_SOURCE_DIR) + "/" + relative; }

void write_file(const std::string &path, const std::string &content, mode_t mode)
{
    fs::path p(path);
    if (p.has_parent_path())
        fs::create_directories(p.parent_path());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    size_t off = 0;
    while (off < content.size()) {
        ssize_t n = write(fd, content.data() + off, content.size() - off);
        if (n <= 0) {
            close(fd);
            throw std::runtime_error("short write to " + path);
        }
        off += static_cast<size_t>(n);
    }
    close(fd);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

long file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

void make_dirs(const std::string &path, mode_t mode)
{
    fs::create_directories(path);
    chmod(path.c_str(), mode);
}

void remove_tree(const std::string &path)
{
    std::error_code ec;
    fs::remove_all(path, ec);
}

void reset_device_tree()
{
    std::error_code ec;
    for (const char *top : {"/mnt", "/tmp"}) {
        for (auto &entry : fs::directory_iterator(top, ec)) {
            std::string name = entry.path().filename();
            if (name == "standins.log")
                continue;
            // The repository may be bind-mounted under /tmp when the checkout lives there.
            if (std::string(WEB_SOURCE_DIR).rfind(entry.path().string() + "/", 0) == 0 ||
                std::string(WEB_BIN_DIR).rfind(entry.path().string() + "/", 0) == 0)
                continue;
            fs::remove_all(entry.path(), ec);
        }
    }
}

Capture::Capture(int fd) : fd_(fd)
{
    fflush(nullptr);
    char tmpl[] = "/tmp/capture-XXXXXX";
    int out = mkstemp(tmpl);
    if (out < 0)
        throw std::runtime_error("mkstemp failed");
    path_ = tmpl;
    saved_ = dup(fd_);
    dup2(out, fd_);
    close(out);
}

Capture::~Capture() { text(); }

std::string Capture::text()
{
    if (!done_) {
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        text_ = read_file(path_);
        unlink(path_.c_str());
        done_ = true;
    }
    return text_;
}

Process::Process(const std::vector<std::string> &argv, const std::string &log_path) : log_path_(log_path)
{
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        setpgid(0, 0);
        execv(args[0], args.data());
        _exit(127);
    }
}

Process::Process(Process &&other) noexcept { *this = std::move(other); }

Process &Process::operator=(Process &&other) noexcept
{
    if (this != &other) {
        stop();
        pid_ = std::exchange(other.pid_, -1);
        status_ = other.status_;
        log_path_ = other.log_path_;
    }
    return *this;
}

Process::~Process() { stop(); }

bool Process::running()
{
    if (pid_ <= 0)
        return false;
    int st;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = st;
        pid_ = -1;
        return false;
    }
    return true;
}

int Process::wait(int timeout_ms)
{
    long long end = now_ms() + timeout_ms;
    while (running()) {
        if (now_ms() > end)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status_;
}

void Process::stop(int sig)
{
    if (pid_ <= 0)
        return;
    kill(pid_, sig);
    if (wait(5000) < 0) {
        kill(pid_, SIGKILL);
        wait(5000);
    }
}

std::string Process::log() const { return read_file(log_path_); }

bool Process::wait_for_log(const std::string &text, int timeout_ms) const
{
    long long end = now_ms() + timeout_ms;
    while (log().find(text) == std::string::npos) {
        if (now_ms() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

int run(const std::vector<std::string> &argv, std::string *output, int timeout_ms)
{
    char tmpl[] = "/tmp/run-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd >= 0)
        close(fd);
    int status;
    {
        Process p(argv, tmpl);
        status = p.wait(timeout_ms);
        if (status < 0)
            p.stop(SIGKILL);
        if (output)
            *output = p.log();
    }
    unlink(tmpl);
    return status;
}

bool port_accepts(const std::string &host, int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &addr.sin_addr);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

bool wait_for_port(const std::string &host, int port, bool open, int timeout_ms)
{
    long long end = now_ms() + timeout_ms;
    while (port_accepts(host, port) != open) {
        if (now_ms() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

namespace {

size_t collect_body(char *data, size_t size, size_t n, void *user)
{
    static_cast<std::string *>(user)->append(data, size * n);
    return size * n;
}

size_t collect_header(char *data, size_t size, size_t n, void *user)
{
    std::string line(data, size * n);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (auto &c : name)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' '))
            value.erase(0, 1);
        while (!value.empty() && (value.back() == '\r' || value.back() == '\n'))
            value.pop_back();
        (*static_cast<std::map<std::string, std::string> *>(user))[name] = value;
    }
    return size * n;
}

struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
    ~CurlGlobal() { curl_global_cleanup(); }
};

} // namespace

HttpReply http(const HttpRequest &req)
{
    static CurlGlobal global;
    HttpReply reply;
    CURL *c = curl_easy_init();
    curl_slist *headers = nullptr;
    curl_mime *mime = nullptr;
    FILE *body_file = nullptr;
    curl_easy_setopt(c, CURLOPT_URL, req.url.c_str());
    curl_easy_setopt(c, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(c, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, req.timeout_ms);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect_body);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, collect_header);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &reply.headers);
    for (auto &h : req.headers)
        headers = curl_slist_append(headers, h.c_str());
    if (!req.upload_path.empty()) {
        mime = curl_mime_init(c);
        curl_mimepart *part = curl_mime_addpart(mime);
        curl_mime_name(part, req.upload_field.empty() ? "file" : req.upload_field.c_str());
        curl_mime_filedata(part, req.upload_path.c_str());
        if (!req.upload_name.empty())
            curl_mime_filename(part, req.upload_name.c_str());
        if (!req.upload_type.empty())
            curl_mime_type(part, req.upload_type.c_str());
        curl_easy_setopt(c, CURLOPT_MIMEPOST, mime);
    } else if (!req.body_file.empty()) {
        body_file = fopen(req.body_file.c_str(), "rb");
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_READDATA, body_file);
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(file_size(req.body_file)));
        headers = curl_slist_append(headers, "Expect:");
    } else if (req.method == "POST") {
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, req.body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(req.body.size()));
    }
    if (req.method == "HEAD")
        curl_easy_setopt(c, CURLOPT_NOBODY, 1L);
    else if (req.method != "GET" && req.method != "POST")
        curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, req.method.c_str());
    if (headers)
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    CURLcode rc = curl_easy_perform(c);
    if (rc == CURLE_OK)
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &reply.status);
    else
        reply.error = curl_easy_strerror(rc);
    if (body_file)
        fclose(body_file);
    curl_mime_free(mime);
    curl_slist_free_all(headers);
    curl_easy_cleanup(c);
    return reply;
}

HttpReply http_get(const std::string &url)
{
    HttpRequest req;
    req.url = url;
    return http(req);
}

HttpReply http_post(const std::string &url, const std::string &body)
{
    HttpRequest req;
    req.method = "POST";
    req.url = url;
    req.body = body;
    return http(req);
}

std::string raw_http(int port, const std::string &request, int timeout_ms)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string got;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
        size_t off = 0;
        while (off < request.size()) {
            ssize_t n = send(fd, request.data() + off, request.size() - off, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
        long long end = now_ms() + timeout_ms;
        char buf[65536];
        while (now_ms() < end) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            got.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    return got;
}

long long now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace ts
