#include "server_support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace ts {

void lay_out_demo_tree()
{
    reset_device_tree();
    make_dirs("/mnt/app");
    make_dirs("/mnt/usr/config");
    fs::copy(source_path("demo/web_root"), kWebRoot, fs::copy_options::recursive);
    fs::copy(source_path("demo/usr/config/app_parameters"), "/mnt/usr/config/app_parameters",
             fs::copy_options::recursive);
    // The demo stores its own port; a test starts from a device without one.
    fs::remove(kPortFile);
}

void store_port(int port)
{
    write_file(kPortFile, "{\n\t\"Port\":\t" + std::to_string(port) + "\n}");
}

ServerProcess::ServerProcess(const std::vector<std::string> &args)
{
    // A stored port wins over the command line, and a device without one stores 80 at
    // start: store the command line's port unless the test stored one itself.
    int port = args.empty() ? 0 : static_cast<int>(strtol(args[0].c_str(), nullptr, 10));
    if (port > 0 && port < 65536 && exists("/mnt/usr/config/app_parameters") && !exists(kPortFile))
        store_port(port);
    std::vector<std::string> argv{bin_path("webserver")};
    argv.insert(argv.end(), args.begin(), args.end());
    process_ = Process(argv, "/tmp/webserver.log");
}

bool ServerProcess::wait_ready(int port, const std::string &host, int timeout_ms)
{
    return wait_for_port(host, port, true, timeout_ms);
}

std::string local_url(int port, const std::string &path)
{
    return "http://127.0.0.1:" + std::to_string(port) + path;
}

int layer_temp_files()
{
    int n = 0;
    for (int i = 0; i < 50; ++i, n = 0) {
        for (auto &e : fs::directory_iterator("/tmp"))
            n += e.path().filename().string().rfind("webs-", 0) == 0;
        if (n == 0)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return n;
}

long peak_memory_kib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == "VmHWM:") {
            long kib = -1;
            status >> kib;
            return kib;
        }
        status.ignore(4096, '\n');
    }
    return -1;
}

} // namespace ts
