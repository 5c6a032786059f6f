#include "device.h"

#include "fuzz_target.h"
#include "common/cfgfile.h"
#include "common/language_format.h"
#include "common/owners.h"
#include "common/text_field.h"
#include "session/session.h"
#include "usermanagement/usermgnt.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"
#include "webserver/service.h"
#include "webs/webs_limits.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cjson/cJSON.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fuzzdev {

namespace {

constexpr int kPort = 8089;
// Far above any answer here; the targets call a slower reply a hang, and one that takes
// this long is given up (it shows how long a hang lasts).
constexpr int kReplyTimeoutMs = 150000;
constexpr int kSendTimeoutMs = 100;     // a device application never waits long for a server gone away
constexpr char kAdminDigest[] = "45b5d899e8cbbf16302d286d2c2f8e9d";  // of the default password "tavel"

constexpr char kRoutes[] = "route uri=/action handler=action methods=GET|POST\n"
                           "route uri=/config handler=file methods=\n"
                           "route uri=/ handler=file methods=GET|HEAD\n";
constexpr char kAuth[] = "role name=administrator abilities=manage,view\nuser name=admin roles=administrator\n";
// Every kind of route: an answer from the upgrade application (pair socket), the password
// check, commands of one application, a command two receivers get, capability files
// (present, missing, and a line without one), a built-in action also listed as capability,
// and a receiver without an IPC address.
constexpr char kRouting[] =
    "StartUpgrade app_update ipc:///tmp/fuzz_app_update.ipc\n"
    "VerifyPassword app_user ipc:///tmp/fuzz_app_user.ipc\n"
    "GetNetworkWIFIParameters app_net ipc:///tmp/fuzz_app_net.ipc\n"
    "SetNetworkWIFIParameters app_net ipc:///tmp/fuzz_app_net.ipc\n"
    "GetScanWIFIHotspot app_net ipc:///tmp/fuzz_app_net.ipc\n"
    "GetStorageStatus app_a ipc:///tmp/fuzz_app_net.ipc\n"
    "GetStorageStatus app_b ipc:///tmp/fuzz_app_net.ipc\n"
    "GetDeviceCapability device_cap /mnt/app/web_root/config/device_cap.json\n"
    "GetMissingCap device_cap /mnt/app/web_root/config/missing.json\n"
    "GetEmptyCap device_cap\n"
    "get_user_param device_cap /mnt/app/web_root/config/device_cap.json\n"
    "GetNowhere app_none /not/an/address\n";

constexpr char kSettings[] = "/mnt/usr/config/app_parameters";
constexpr char kPortFile[] = "/mnt/usr/config/app_parameters/WebServerParameter.json";

struct Document {
    const char *path;  // below the document root
    size_t size;       // of the pattern it holds; every size differs
};
// Sizes on both sides of the layer's in-memory limit (16 KiB), and none.
constexpr Document kDocuments[] = {
    {"/login.html", 1000},
    {"/device.html", 1001},
    {"/js/md5.js", 5000},
    {"/empty.txt", 0},
    {"/one.txt", 1},
    {"/page16k.bin", 16384},
    {"/page16k1.bin", 16385},
    {"/big.bin", 70000},
    {"/page.txt", 1234},  // with a precompressed copy (its bytes need be no gzip: nothing unpacks them)
    {"/page.txt.gz", 4321},
    {"/only.js.gz", 2222},  // a precompressed copy alone
    {"/page2.txt", 1235},   // whose copy is a link out of the root
    {"/images/watermark/logo.png", 2048},
    {"/sd/recodefilelist.txt", 7},
    {"/sd/20240501/080000.mp4", 3000},
    {"/sd/20240501/081500.mp4", 3001},
    {"/sd/20240502/120000.mp4", 3002},
};

// Files that must never be served: private, outside the root, or a page in the picture
// folder. Each holds kCanary.
constexpr std::pair<const char *, const char *> kSecrets[] = {
    {"/mnt/app/web_root/config/secret.txt", "CANARY-CONFIG"},
    {"/mnt/outside/secret.txt", "CANARY-OUTSIDE"},
    {"/mnt/outside/page.html", "CANARY-OUTSIDE-PAGE"},
    {"/mnt/app/web_root/images/watermark/x.html", "CANARY-PICTURE-FOLDER"},
    {"/mnt/app/web_root/images/watermark/y.html.gz", "CANARY-PICTURE-FOLDER-GZ"},
};

// Links out of the root, into its private folder and into the picture folder.
constexpr std::pair<const char *, const char *> kLinks[] = {
    {"/mnt/app/web_root/escape", "/mnt/outside"},
    {"/mnt/app/web_root/secret.txt", "/mnt/outside/secret.txt"},
    {"/mnt/app/web_root/page2.txt.gz", "/mnt/outside/secret.txt"},
    {"/mnt/app/web_root/cfg", "config"},
    {"/mnt/app/web_root/pics", "images/watermark"},
    {"/mnt/app/web_root/loop", "loop"},
    {"/mnt/app/web_root/sd/out", "/mnt/outside"},
    {"/mnt/app/web_root/sd/20240501/up", "../../config"},
};

const char *const kCanaries[] = {
    "/mnt/app/web_root/config/secret.txt", "/mnt/outside/secret.txt", "/mnt/outside/page.html",
    "/mnt/app/web_root/login.html",        "/mnt/app/web_root/sd",    "/mnt/app/web_root/config/route.txt",
    nullptr,
};

// The tree in parts, each laid out again on its own when a request changed it: the storage
// card, the picture folder, the settings, and the rest of the document root.
enum class Part { Storage, Pictures, Settings, Documents };
constexpr Part kParts[] = {Part::Documents, Part::Settings, Part::Storage, Part::Pictures};
constexpr char kStorage[] = "/mnt/app/web_root/sd";
constexpr char kPictures[] = "/mnt/app/web_root/images/watermark";

// Folders and files whose change means a request changed a part.
const std::vector<const char *> &watched(Part part)
{
    static const std::vector<const char *> storage = {kStorage, "/mnt/app/web_root/sd/20240501",
                                                      "/mnt/app/web_root/sd/20240502"};
    static const std::vector<const char *> pictures = {kPictures};
    static const std::vector<const char *> settings = {kSettings, kPortFile, WEB_LANGUAGE_FILE, USERMGNT_PARA_FILE};
    static const std::vector<const char *> documents = {kRoot};
    switch (part) {
    case Part::Storage: return storage;
    case Part::Pictures: return pictures;
    case Part::Settings: return settings;
    case Part::Documents: break;
    }
    return documents;
}

Part part_of(std::string_view path)
{
    if (path.starts_with(kStorage))
        return Part::Storage;
    if (path.starts_with(kPictures))
        return Part::Pictures;
    return Part::Documents;
}

void make_dirs(const std::string &path)
{
    for (size_t at = 1; at != std::string::npos; at = path.find('/', at + 1))
        mkdir(path.substr(0, at).c_str(), 0755);
    mkdir(path.c_str(), 0755);
}

void write_file(const std::string &path, std::string_view content)
{
    make_dirs(path.substr(0, path.rfind('/')));
    unlink(path.c_str());
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    FUZZ_CHECK(fd && write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
               path);
}

std::map<Part, std::vector<struct stat>> snapshot;

std::vector<struct stat> watched_now(Part part)
{
    std::vector<struct stat> now;
    for (const char *path : watched(part)) {
        struct stat st {};
        lstat(path, &st);
        now.push_back(st);
    }
    return now;
}

bool same(const struct stat &a, const struct stat &b)
{
    return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mode == b.st_mode &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// ---- device applications

std::mutex answer_mutex;
std::string device_answer;

// A well-formed answer to command; the password check accepts the default password.
std::string answer_to(const cJSON *request)
{
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(request, "Command");
    const char *command = cJSON_IsString(cmd) ? cmd->valuestring : "";
    CJsonPtr reply(cJSON_CreateObject());
    cJSON_AddStringToObject(reply.get(), "Command", command);
    cJSON *response = cJSON_AddObjectToObject(reply.get(), "Response");
    cJSON_AddStringToObject(response, "Result", "OK");
    cJSON *params = cJSON_AddObjectToObject(response, "Parameters");
    if (strcmp(command, "VerifyPassword") == 0) {
        const cJSON *p = cJSON_GetObjectItemCaseSensitive(request, "Parameters");
        const cJSON *pw = cJSON_GetObjectItemCaseSensitive(p, "Password");
        bool valid = cJSON_IsString(pw) && (strcmp(pw->valuestring, kAdminDigest) == 0 ||
                                            strcmp(pw->valuestring, "tavel") == 0);
        cJSON_AddNumberToObject(params, "PassValidation", valid ? 1 : 0);
    } else if (strcmp(command, "StartUpgrade") == 0) {
        cJSON_AddNumberToObject(params, "UpgradeProgressValue", 100);
    }
    HeapText text(cJSON_PrintUnformatted(reply.get()));
    return text ? text.get() : "";
}

// An answer lost to a stopped world would leave the server waiting its whole receive time-out
// (three minutes for the upgrade): libFuzzer's leak checks stop every thread, nanomsg's own
// included, for longer than the send time-out, and a signal interrupts the send. A send
// that times out while the server is there is tried again; only a server gone for good (no
// peer for a second) drops it.
void send_text(int sock, const std::string &text)
{
    for (int attempt = 0; attempt < 10; ++attempt)
        if (nn_send(sock, text.data(), text.size(), 0) >= 0 || (nn_errno() != ETIMEDOUT && nn_errno() != EINTR))
            return;
}

// Answers every request on a socket: the fuzzed answer when one is set, else a well-formed
// one. The upgrade application (pair) sends a final, well-formed reply after any other, so
// that a progress reply never leaves the server waiting.
void serve(const char *address, bool pair)
{
    unlink(address + strlen("ipc://"));  // a socket left by a process that ended
    int sock = nn_socket(AF_SP, pair ? NN_PAIR : NN_REP);
    int timeout = kSendTimeoutMs;
    FUZZ_CHECK(sock >= 0 && nn_bind(sock, address) >= 0, address);
    nn_setsockopt(sock, NN_SOL_SOCKET, NN_SNDTIMEO, &timeout, sizeof timeout);
    std::thread([sock, pair] {
        for (;;) {
            void *buf = nullptr;
            int got = nn_recv(sock, &buf, NN_MSG, 0);
            if (got < 0) {
                if (nn_errno() == EBADF || nn_errno() == ETERM)
                    return;
                continue;
            }
            NnMsgPtr msg(buf);
            CJsonPtr request(cJSON_ParseWithLength(static_cast<const char *>(buf), static_cast<size_t>(got)));
            std::string fuzzed;
            {
                std::lock_guard<std::mutex> lock(answer_mutex);
                fuzzed = device_answer;
            }
            std::string good = answer_to(request.get());
            send_text(sock, fuzzed.empty() ? good : fuzzed);
            if (pair && !fuzzed.empty())
                send_text(sock, good);
        }
    }).detach();
}

// ---- the connection to the server

long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

UniqueFd connection;
int last_error = 0;  // errno of the last failed connect or send, for the report of a failure

// A new connection; its close resets it, so that thousands of them a second leave no
// TIME_WAIT behind to run the machine out of ports.
bool connect_server()
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    linger reset{1, 0};
    // An interrupted connect (libFuzzer's leak checks stop every thread) goes on by itself;
    // a new socket is the simplest way to know where it stands.
    for (int attempt = 0; attempt < 10; ++attempt) {
        connection.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connection && setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0 &&
            connect(connection.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
            return true;
        last_error = errno;
        if (last_error != EINTR)
            break;
    }
    connection.reset();
    return false;
}

bool send_all(const std::string &bytes)
{
    for (size_t off = 0; off < bytes.size();) {
        ssize_t n = send(connection.get(), bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            last_error = errno;
            return false;
        }
        off += static_cast<size_t>(n);
    }
    return true;
}

// Reads into buf until it holds at least want bytes, or (to_close) until the peer closes;
// false when that does not happen in time (then *late) or the peer closes first.
bool read_until(std::string &buf, size_t want, bool to_close, long long deadline, bool *late)
{
    char chunk[65536];
    while (to_close || buf.size() < want) {
        long long left = deadline - now_ms();
        pollfd p{connection.get(), POLLIN, 0};
        int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
        // libFuzzer's leak checks stop every thread for a moment, which interrupts a wait.
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            *late = true;
            return false;
        }
        ssize_t n = recv(connection.get(), chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return to_close;
        buf.append(chunk, static_cast<size_t>(n));
    }
    return true;
}

void stop_server() { web_service_stop(); }

} // namespace

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + (i * 7 + size) % 26);
    return text;
}

const char *const *canaries() { return kCanaries; }

namespace {

void lay_out_part(Part part)
{
    if (part == Part::Storage || part == Part::Pictures) {
        // Emptied, with whatever a request left there; the folder itself stays, so that its
        // parent does not change.
        std::error_code ec;
        const char *folder = part == Part::Storage ? kStorage : kPictures;
        make_dirs(folder);
        for (const auto &e : std::filesystem::directory_iterator(folder, ec))
            std::filesystem::remove_all(e.path(), ec);
    }
    if (part == Part::Settings) {
        make_dirs(kSettings);
        make_dirs(std::string(kRoot) + "/config");
        write_file(kPortFile, "{\"Port\":" + std::to_string(kPort) + "}");
        LanguageFormat lang{};
        copy_field(lang.language, sizeof lang.language, "english");
        copy_field(lang.index_page, sizeof lang.index_page, "login.html");
        FUZZ_CHECK(http_set_cfgfile(WEB_LANGUAGE_FILE, &lang, sizeof lang) == 0, "language record");
        UsermgntConfig accounts;
        usermgnt_default(&accounts);
        FUZZ_CHECK(http_set_cfgfile(USERMGNT_PARA_FILE, &accounts, sizeof accounts) == 0, "account file");
    }
    if (part == Part::Documents) {
        make_dirs(std::string(kRoot) + "/config");
        make_dirs("/mnt/outside");
        write_file(std::string(kRoot) + "/config/route.txt", kRoutes);
        write_file(std::string(kRoot) + "/config/auth.txt", kAuth);
        write_file(std::string(kRoot) + "/config/command_para", kRouting);
        write_file(std::string(kRoot) + "/config/device_cap.json", "{ \"Audio\": 1, \"Channels\": [1, 2] }\n");
    }
    for (const Document &d : kDocuments)
        if (part_of(std::string(kRoot) + d.path) == part)
            write_file(std::string(kRoot) + d.path, pattern(d.size));
    for (const auto &[path, text] : kSecrets)
        if (part_of(path) == part)
            write_file(path, text);
    for (const auto &[link, target] : kLinks) {
        if (part_of(link) != part)
            continue;
        unlink(link);
        FUZZ_CHECK(symlink(target, link) == 0, link);
    }
    snapshot[part] = watched_now(part);
}

} // namespace

void lay_out()
{
    for (Part part : kParts)
        lay_out_part(part);
    // Laying out one part may touch the folder another watches: the state is taken at the end.
    for (Part part : kParts)
        snapshot[part] = watched_now(part);
}

void restore()
{
    HTTP_WEB_PORT = kPort;  // a port setting moves nothing here: no supervisor runs
    for (Part part : kParts) {
        std::vector<struct stat> now = watched_now(part);
        for (size_t i = 0; i < now.size(); ++i) {
            if (!same(now[i], snapshot[part][i])) {
                lay_out_part(part);
                break;
            }
        }
    }
}

void start()
{
    static std::once_flag once;
    std::call_once(once, [] {
        lay_out();
        FUZZ_CHECK(http_read_config_command() == 0, "routing file");
        serve("ipc:///tmp/fuzz_app_update.ipc", true);
        serve("ipc:///tmp/fuzz_app_user.ipc", false);
        serve("ipc:///tmp/fuzz_app_net.ipc", false);
        // The way the process entry starts the server, on the loopback interface.
        static WebParams params{kPort, 443, "*", "lo"};
        HTTP_WEB_PORT = kPort;
        FUZZ_CHECK(web_service_start(&params) == 0, "server thread");
        atexit(stop_server);  // before the layer's own objects go
        for (int i = 0; i < 500 && !connect_server(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        FUZZ_CHECK(connection, "the server listens");
    });
}

std::string request_target(std::string_view text)
{
    std::string out;
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7f) {
            char esc[4];
            snprintf(esc, sizeof esc, "%%%02X", u);
            out += esc;
        } else {
            out += c;
        }
    }
    return out;
}

bool dropped_by_the_library(std::string_view target)
{
    constexpr size_t kPerPart = 64;       // a header record in libmicrohttpd's pool, rounded up
    constexpr size_t kOtherHeaders = 4;   // Host, Content-Type, Content-Length and the line
    constexpr size_t kReplyRoom = 2048;   // the reply's header with room to spare
    size_t parts = static_cast<size_t>(std::count(target.begin(), target.end(), '&')) + 1 + kOtherHeaders;
    return target.size() + 256 + parts * kPerPart + kReplyRoom >= webs_limits::kConnectionMemory;
}

std::string Reply::header(std::string_view name) const
{
    for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
        std::string_view line = std::string_view(head).substr(at + 2);
        line = line.substr(0, line.find("\r\n"));
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.data(), name.data(), name.size()) == 0) {
            std::string_view value = line.substr(name.size() + 1);
            while (!value.empty() && value.front() == ' ')
                value.remove_prefix(1);
            return std::string(value);
        }
    }
    return "";
}

namespace {

// One request on the kept connection (a new one when there is none).
Reply exchange_once(const std::string &request, bool head)
{
    Reply r;
    last_error = 0;
    if ((!connection && !connect_server()) || !send_all(request)) {
        connection.reset();
        r.error = last_error;
        return r;
    }
    long long start = now_ms(), deadline = start + kReplyTimeoutMs;
    struct Timer {  // the time taken, on every way out
        Reply &r;
        long long start;
        ~Timer() { r.ms = now_ms() - start; }
    } timer{r, start};
    std::string buf;
    bool late = false;
    size_t end;
    while ((end = buf.find("\r\n\r\n")) == std::string::npos) {
        size_t had = buf.size();
        if (!read_until(buf, had + 1, false, deadline, &late)) {
            connection.reset();
            r.status = late ? -1 : 0;
            return r;
        }
    }
    r.head = buf.substr(0, end + 2);
    r.status = atoi(r.head.c_str() + r.head.find(' ') + 1);
    buf.erase(0, end + 4);
    std::string length = r.header("Content-Length");
    bool bodiless = head || r.status == 304 || r.status == 204 || r.status < 200;
    if (!bodiless && !length.empty()) {
        size_t want = strtoull(length.c_str(), nullptr, 10);
        if (!read_until(buf, want, false, deadline, &late)) {
            connection.reset();
            r.status = late ? -1 : 0;
            return r;
        }
        r.body = buf.substr(0, want);
    } else if (!bodiless) {
        read_until(buf, 0, true, deadline, &late);
        r.body = buf;
        connection.reset();
    }
    if (strcasecmp(r.header("Connection").c_str(), "close") == 0)
        connection.reset();
    return r;
}

} // namespace

Reply exchange(const std::string &request, bool head)
{
    // A kept connection may have been closed by the server since (idle time-out): a request
    // that finds it so goes once more on a new one.
    bool kept = static_cast<bool>(connection);
    Reply r = exchange_once(request, head);
    if (r.status == 0 && kept)
        r = exchange_once(request, head);
    return r;
}

std::string session_id()
{
    static std::string id;
    if (id.empty() || find_saved_session(id.c_str(), "get") < 0) {
        char *made = nullptr;
        FUZZ_CHECK(add_new_session("admin", 1 << 30, &made) == 0 && made, "a session");
        id = made;
    }
    return id;
}

void set_device_answer(std::string_view answer)
{
    std::lock_guard<std::mutex> lock(answer_mutex);
    device_answer = answer;
}

} // namespace fuzzdev
