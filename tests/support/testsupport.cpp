#include "testsupport.h"

#include "common/owners.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <curl/header.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;

namespace ts {

bool eventually(const std::function<bool()> &done, int timeout_ms)
{
    for (long long end = now_ms() + timeout_ms; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (now_ms() > end)
            return false;
    return true;
}

namespace {

sockaddr_in address(const std::string &host, int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &addr.sin_addr);
    return addr;
}

bool connect_to(int fd, const std::string &host, int port)
{
    sockaddr_in addr = address(host, port);
    return connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
}

// With WEB_REPLY_LOG naming a file, each reply to an action is appended to it as one JSON
// line (target, status, body), which tests/api/check_replies.py checks against docs/api.yaml.
void log_action_reply(const std::string &url, const HttpReply &reply)
{
    const char *log = getenv("WEB_REPLY_LOG");
    size_t at = url.find("/action/");
    if (!log || at == std::string::npos)
        return;
    CJsonPtr line(cJSON_CreateObject());
    cJSON_AddStringToObject(line.get(), "url", url.c_str() + at);
    cJSON_AddNumberToObject(line.get(), "status", static_cast<double>(reply.status));
    cJSON_AddStringToObject(line.get(), "body", reply.body.c_str());
    HeapText text(cJSON_PrintUnformatted(line.get()));
    std::ofstream(log, std::ios::app) << text.get() << '\n';
}

} // namespace

std::string bin_path(const std::string &name) { return std::string(WEB_BIN_DIR) + "/" + name; }

std::string host_tool_path(const std::string &name)
{
    const char *dir = getenv("WEB_TEST_HOST_BIN");
    return dir && *dir ? std::string(dir) + "/" + name : bin_path(name);
}

void write_file(const std::string &path, const std::string &content, mode_t mode)
{
    fs::create_directories(fs::path(path).parent_path());
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!fd || write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool exists(const std::string &path) { return fs::exists(fs::symlink_status(path)); }

void make_dirs(const std::string &path, mode_t mode)
{
    fs::create_directories(path);
    chmod(path.c_str(), mode);
}

void make_file(const std::string &path, unsigned long long size)
{
    write_file(path, "");
    fs::resize_file(path, size);
}

void remove_tree(const std::string &path)
{
    std::error_code ec;
    fs::remove_all(path, ec);
}

void reset_device_tree()
{
    std::error_code ec;
    for (const char *top : {"/mnt", "/tmp"})
        for (auto &entry : fs::directory_iterator(top, ec)) {
            // The repository may be bind-mounted under /tmp when the checkout lives there.
            std::string inside = entry.path().string() + "/";
            if (entry.path().filename() != "standins.log" && std::string(WEB_SOURCE_DIR).rfind(inside, 0) != 0 &&
                std::string(WEB_BIN_DIR).rfind(inside, 0) != 0)
                fs::remove_all(entry.path(), ec);
        }
}

void lay_out_demo_tree()
{
    reset_device_tree();
    make_dirs("/mnt/app");
    make_dirs("/mnt/usr/config");
    fs::copy(WEB_SOURCE_DIR "/demo/web_root", "/mnt/app/web_root", fs::copy_options::recursive);
    fs::copy(WEB_SOURCE_DIR "/demo/usr/config/app_parameters", "/mnt/usr/config/app_parameters",
             fs::copy_options::recursive);
    fs::remove(kPortFile);
}

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
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

bool has_error(const std::string &err, const std::string &message, const std::string &func)
{
    return err.find((func.empty() ? "" : ", " + func) + ">: " + message + "\033[0m") != std::string::npos;
}

Outcome call(const std::function<int(char **)> &handler)
{
    Outcome o;
    char *text = nullptr;
    {
        Capture err(2), out(1);
        o.rc = handler(&text);
        o.out = out.text();
        o.err = err.text();
    }
    HeapText owner(text);
    o.reply = text ? text : "<null>";
    return o;
}

Outcome call(int (*handler)(const char *, char **), const char *body)
{
    return call([&](char **out) { return handler(body, out); });
}

std::string envelope(const char *result, const char *reason, int code, const char *raw_params)
{
    CJsonPtr obj(cJSON_CreateObject());
    cJSON_AddStringToObject(obj.get(), "Result", result);
    if (code)
        cJSON_AddNumberToObject(obj.get(), "ErrorNo", code);
    if (reason)
        cJSON_AddStringToObject(obj.get(), "Reason", reason);
    if (raw_params)
        cJSON_AddRawToObject(obj.get(), "Parameters", raw_params);
    HeapText text(cJSON_Print(obj.get()));
    return text.get();
}

Process::Process(const std::vector<std::string> &argv, const std::string &log_path) : log_path_(log_path)
{
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    fflush(nullptr);
    if ((pid_ = fork()) == 0) {
        int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
        setpgid(0, 0);
        execv(args[0], args.data());
        _exit(127);
    }
}

Process &Process::operator=(Process &&other) noexcept
{
    stop();
    pid_ = std::exchange(other.pid_, -1);
    status_ = other.status_;
    log_path_ = other.log_path_;
    return *this;
}

bool Process::freeze()
{
    kill(pid_, SIGSTOP);
    return eventually([this] {
        std::string stat = read_file("/proc/" + std::to_string(pid_) + "/stat");
        size_t close = stat.rfind(')');
        return close != std::string::npos && stat.size() > close + 2 && stat[close + 2] == 'T';
    });
}

bool Process::running()
{
    int st;
    if (pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_) {
        status_ = st;
        pid_ = -1;
    }
    return pid_ > 0;
}

int Process::wait(int timeout_ms)
{
    return eventually([this] { return !running(); }, timeout_ms) ? status_ : -1;
}

void Process::stop(int sig)
{
    if (pid_ > 0 && (kill(pid_, sig), wait(5000) < 0)) {
        kill(pid_, SIGKILL);
        wait(5000);
    }
}

bool Process::wait_for_log(const std::string &text, int timeout_ms) const
{
    return eventually([&] { return log().find(text) != std::string::npos; }, timeout_ms);
}

int run(const std::vector<std::string> &argv, std::string *output, int timeout_ms)
{
    char tmpl[] = "/tmp/run-XXXXXX";
    close(mkstemp(tmpl));
    Process p(argv, tmpl);
    int status = p.wait(timeout_ms);
    p.stop(SIGKILL);
    if (output)
        *output = p.log();
    unlink(tmpl);
    return status;
}

Process start_server(const std::vector<std::string> &args, const std::vector<std::string> &launcher)
{
    int port = args.empty() ? 0 : static_cast<int>(strtol(args[0].c_str(), nullptr, 10));
    if (port > 0 && port < 65536 && exists("/mnt/usr/config/app_parameters") && !exists(kPortFile))
        write_file(kPortFile, "{\n\t\"Port\":\t" + std::to_string(port) + "\n}");
    std::vector<std::string> argv = launcher;
    argv.push_back(bin_path("webserver"));
    argv.insert(argv.end(), args.begin(), args.end());
    return Process(argv, "/tmp/webserver.log");
}

Process start_sim(const std::string &scenario_json)
{
    std::vector<std::string> argv = {bin_path("devicesim"), "/mnt/app/web_root/config/command_para"};
    if (!scenario_json.empty()) {
        write_file("/tmp/scenario.json", scenario_json);
        argv.push_back("/tmp/scenario.json");
    }
    Process sim(argv, "/tmp/devicesim.log");
    EXPECT_TRUE(sim.wait_for_log("devicesim: ready\n", 5000)) << sim.log();
    return sim;
}

UniqueFd connect_from(const std::string &source, int port)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in from = address(source, 0);
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        !connect_to(fd.get(), "127.0.0.1", port))
        return UniqueFd();
    return fd;
}

bool port_accepts(const std::string &host, int port)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect_to(fd.get(), host, port);
}

bool wait_for_port(const std::string &host, int port, bool open, int timeout_ms)
{
    return eventually([&] { return port_accepts(host, port) == open; }, timeout_ms);
}

int free_port()
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = address("127.0.0.1", 0);
    socklen_t len = sizeof addr;
    bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    getsockname(fd.get(), reinterpret_cast<sockaddr *>(&addr), &len);
    return ntohs(addr.sin_port);
}

std::string local_url(int port, const std::string &path) { return "http://127.0.0.1:" + std::to_string(port) + path; }

HttpReply http(const HttpRequest &req)
{
    static const CURLcode global = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)global;
    HttpReply reply;
    std::unique_ptr<CURL, void (*)(CURL *)> c(curl_easy_init(), curl_easy_cleanup);
    std::unique_ptr<curl_slist, void (*)(curl_slist *)> headers(nullptr, curl_slist_free_all);
    std::unique_ptr<curl_mime, void (*)(curl_mime *)> mime(nullptr, curl_mime_free);
    FilePtr body_file;
    auto add_header = [&](const std::string &h) { headers.reset(curl_slist_append(headers.release(), h.c_str())); };
    size_t (*collect)(char *, size_t, size_t, void *) = [](char *data, size_t size, size_t n, void *body) {
        static_cast<std::string *>(body)->append(data, size * n);
        return size * n;
    };
    curl_easy_setopt(c.get(), CURLOPT_URL, req.url.c_str());
    curl_easy_setopt(c.get(), CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(c.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(c.get(), CURLOPT_TIMEOUT_MS, req.timeout_ms);
    curl_easy_setopt(c.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c.get(), CURLOPT_WRITEDATA, &reply.body);
    for (auto &h : req.headers)
        add_header(h);
    if (!req.source.empty())
        curl_easy_setopt(c.get(), CURLOPT_INTERFACE, ("host!" + req.source).c_str());
    if (!req.upload_path.empty()) {
        mime.reset(curl_mime_init(c.get()));
        curl_mimepart *part = curl_mime_addpart(mime.get());
        curl_mime_name(part, "file");
        curl_mime_filedata(part, req.upload_path.c_str());
        curl_mime_filename(part, req.upload_name.c_str());
        curl_mime_type(part, req.upload_type.c_str());
        curl_easy_setopt(c.get(), CURLOPT_MIMEPOST, mime.get());
    } else if (!req.body_file.empty()) {
        body_file.reset(fopen(req.body_file.c_str(), "rb"));
        curl_easy_setopt(c.get(), CURLOPT_POST, 1L);
        curl_easy_setopt(c.get(), CURLOPT_READDATA, body_file.get());
        curl_easy_setopt(c.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(fs::file_size(req.body_file)));
        add_header("Expect:");
    } else if (req.method == "POST") {
        curl_easy_setopt(c.get(), CURLOPT_POSTFIELDS, req.body.c_str());
        curl_easy_setopt(c.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(req.body.size()));
    }
    if (req.method == "HEAD")
        curl_easy_setopt(c.get(), CURLOPT_NOBODY, 1L);
    else if (req.method != "GET" && req.method != "POST")
        curl_easy_setopt(c.get(), CURLOPT_CUSTOMREQUEST, req.method.c_str());
    curl_easy_setopt(c.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_perform(c.get());
    curl_easy_getinfo(c.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    for (curl_header *h = nullptr; (h = curl_easy_nextheader(c.get(), CURLH_HEADER, -1, h));) {
        std::string name = h->name;
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        reply.headers[name] = h->value;
    }
    log_action_reply(req.url, reply);
    return reply;
}

std::string raw_http(int port, const std::string &request, int timeout_ms)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::string got;
    if (!connect_to(fd.get(), "127.0.0.1", port))
        return got;
    for (ssize_t off = 0, n = 0; off < static_cast<ssize_t>(request.size()); off += n)
        if ((n = send(fd.get(), request.data() + off, request.size() - off, MSG_NOSIGNAL)) <= 0)
            break;
    char buf[65536];
    for (long long end = now_ms() + timeout_ms; now_ms() < end;) {
        pollfd p{fd.get(), POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        ssize_t n = recv(fd.get(), buf, sizeof buf, 0);
        if (n <= 0)
            break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

std::string status_line(const std::string &raw) { return raw.substr(0, raw.find("\r\n")); }

int temp_files_now()
{
    int n = 0;
    for (auto &e : fs::directory_iterator("/tmp")) {
        std::string name = e.path().filename();
        n += name.starts_with("webs-") || name.starts_with(".upgrade-");
    }
    return n;
}

int temp_files()
{
    int n = 0;
    eventually([&n] { return (n = temp_files_now()) == 0; }, 1000);
    return n;
}

long long monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

void wait_for_second(long long second)
{
    eventually([second] { return monotonic_seconds() >= second; }, 60000);
}

long long fresh_second()
{
    long long next = monotonic_seconds() + 1;
    wait_for_second(next);
    return next;
}

long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool skipped_under_emulation(const std::string &check, const std::string &why)
{
    const char *emulator = getenv("WEB_TEST_EMULATOR");
    if (!emulator || !*emulator)
        return false;
    printf("[ SKIPPED  ] %s under %s: %s\n", check.c_str(), emulator, why.c_str());
    return true;
}

Device::Device(const std::string &scenario, const std::string &routes, int port,
               const std::vector<std::string> &launcher)
    : port_(port)
{
    lay_out_demo_tree();
    if (!routes.empty())
        write_file("/mnt/app/web_root/config/command_para", routes);
    sim_ = start_sim(scenario);
    server_ = start_server({std::to_string(port), "lo"}, launcher);
    EXPECT_TRUE(wait_for_port("127.0.0.1", port, true)) << server_.log();
}

HttpReply Device::call(const std::string &action, const std::string &query, const std::string &body)
{
    return http({.method = "POST",
                 .url = local_url(port_, "/action/device/" + action + (query.empty() ? "" : "?" + query)),
                 .body = body});
}

std::string Device::login(int timeout)
{
    HttpReply r = call("login", "", std::string(R"({"username":"admin","password":")") + kAdminDigest +
                                        R"(","timeout":)" + std::to_string(timeout) + "}");
    size_t at = r.body.find("\"sessionid\":\t\"");
    return at == std::string::npos ? "" : r.body.substr(at + 14, r.body.find('"', at + 14) - at - 14);
}

} // namespace ts
