// The device's tree from `cmake --install`, run the way a device runs it: the staged pages
// (gzip copies), route and authentication files serve as they are, and the BusyBox-style start script keeps
// the server running and stops it with its supervisor.
#include "testsupport.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char kStage[] = "/tmp/stage";
constexpr char kServer[] = "/mnt/app/bin/webserver";

class Install : public ::testing::Test {
protected:
    // This build staged, and its device tree in place of the test's /mnt.
    void SetUp() override
    {
        ts::reset_device_tree();
        std::string out;
        ASSERT_EQ(0, ts::run({"/usr/bin/cmake", "--install", std::string(WEB_BIN_DIR) + "/..", "--prefix", kStage},
                             &out))
            << out;
        ASSERT_EQ(0, ts::run({"/bin/cp", "-a", std::string(kStage) + "/mnt/.", "/mnt/"}, &out)) << out;
    }

    static std::string script() { return std::string(kStage) + "/etc/init.d/S50webserver"; }
};

bool is_executable_file(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR);
}

TEST_F(Install, TheStagedTreeHoldsTheDeviceFiles)
{
    for (const char *program : {"/mnt/app/bin/webserver", "/etc/init.d/S50webserver"})
        EXPECT_TRUE(is_executable_file(kStage + std::string(program))) << program;
    for (const char *file : {"/lib/systemd/system/webserver.service", "/mnt/app/web_root/login.html.gz",
                             "/mnt/app/web_root/config/route.txt", "/mnt/app/web_root/config/auth.txt",
                             "/mnt/app/web_root/config/command_para"})
        EXPECT_TRUE(fs::is_regular_file(kStage + std::string(file))) << file;
    for (const char *dir : {"/mnt/app/web_root/sd", "/mnt/app/web_root/images/watermark",
                            "/mnt/usr/config/app_parameters"}) {
        EXPECT_TRUE(fs::is_directory(kStage + std::string(dir))) << dir;
        EXPECT_TRUE(fs::is_empty(kStage + std::string(dir))) << dir << " holds the demo's files";
    }
    EXPECT_FALSE(ts::exists(kStage + std::string("/mnt/app/web_root/login.html"))) << "the device keeps only the gzip copies";
}

TEST_F(Install, TheStagedTreeServesAsItIs)
{
    ts::write_file(ts::kPortFile, "{\n\t\"Port\":\t8080\n}");  // a device without one stores 80
    ts::Process server({kServer, "8080", "lo"}, "/tmp/webserver.log");
    ASSERT_TRUE(ts::wait_for_port("127.0.0.1", 8080, true)) << server.log();
    ts::HttpReply page = ts::http({.url = ts::local_url(8080, "/"), .headers = {"Accept-Encoding: gzip"}});
    EXPECT_EQ(200, page.status);
    EXPECT_EQ("gzip", page.headers["content-encoding"]);
    EXPECT_EQ(ts::read_file("/mnt/app/web_root/login.html.gz"), page.body);
    ts::HttpReply language = ts::http({.method = "POST", .url = ts::local_url(8080, "/action/device/get_Language_Format")});
    EXPECT_NE(std::string::npos, language.body.find("\"Result\":\t\"OK\"")) << language.body;
    ts::HttpReply route = ts::http({.url = ts::local_url(8080, "/config/route.txt")});
    EXPECT_TRUE(route.status >= 400 && route.status < 500) << route.status;
}

// The pid namespace that the unshare process pid made for its children.
std::string pid_namespace_of_children(pid_t pid)
{
    std::error_code ec;
    return fs::read_symlink("/proc/" + std::to_string(pid) + "/ns/pid_for_children", ec).string();
}

// The processes of that namespace whose command line holds text; a server run emulated shows
// the emulator first and the server's path after it.
std::vector<pid_t> processes_in(const std::string &ns, const std::string &text)
{
    std::vector<pid_t> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code ec;
        if (fs::read_symlink(entry.path() / "ns/pid", ec).string() != ns || ec)
            continue;
        std::string cmdline;
        try {
            cmdline = ts::read_file(entry.path() / "cmdline");
        } catch (const std::exception &) {
            continue;  // ended meanwhile
        }
        for (char &c : cmdline)
            if (c == '\0')
                c = ' ';
        if (cmdline.find(text) != std::string::npos)
            found.push_back(std::stoi(name));
    }
    return found;
}

// The staged start script run as a device's init runs it: started, then stopped once the
// test writes a word into /tmp/control. Everything it starts lives in a pid namespace of its
// own, which ends with the test whatever happens: no supervisor outlives it.
class StartScript : public Install {
protected:
    void SetUp() override
    {
        Install::SetUp();
        // The script keeps its supervisor's pid in /var/run; the test's own, not the machine's.
        ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, "mode=0755")) << strerror(errno);
        ts::write_file(ts::kPortFile, "{\n\t\"Port\":\t8080\n}");  // the stored port wins over 80
        ASSERT_EQ(0, mkfifo("/tmp/control", 0600));
        init = ts::Process({"/usr/bin/unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "/bin/sh", "-c",
                            "sh \"$0\" start && read word </tmp/control && sh \"$0\" stop && : >/tmp/stopped && "
                            "exec sleep 600",
                            script()},
                           "/tmp/init.log");
        ASSERT_TRUE(ts::wait_for_port("127.0.0.1", 8080, true, 10000)) << init.log() << ts::read_file("/tmp/syslog.log");
        ns = pid_namespace_of_children(init.pid());
    }
    void TearDown() override
    {
        init.stop(SIGKILL);  // unshare ignores SIGTERM while its child runs; SIGKILL ends the namespace
        // The namespace's processes end after unshare: the next test must not meet this server.
        EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 8080, false));
        umount2("/run", MNT_DETACH);
    }

    ts::Process init;
    std::string ns;
};

TEST_F(StartScript, StartsTheServerWithItsSupervisor)
{
    EXPECT_EQ(1u, processes_in(ns, kServer).size());
    EXPECT_EQ(1u, processes_in(ns, "S50webserver supervise").size());
}

TEST_F(StartScript, TheSupervisorStartsTheServerAgainWhenItEnds)
{
    std::vector<pid_t> first = processes_in(ns, kServer);
    ASSERT_EQ(1u, first.size());
    ASSERT_EQ(0, kill(first[0], SIGKILL));
    EXPECT_TRUE(ts::eventually(
        [&] {
            std::vector<pid_t> now = processes_in(ns, kServer);
            return now.size() == 1 && now[0] != first[0] && ts::port_accepts("127.0.0.1", 8080);
        },
        10000))
        << ts::read_file("/tmp/syslog.log");
    EXPECT_NE(std::string::npos, ts::read_file("/tmp/syslog.log").find("webserver ended (status 137), starting it again"));
    EXPECT_EQ(200, ts::http({.url = ts::local_url(8080, "/login.html"), .headers = {"Accept-Encoding: gzip"}}).status);
}

TEST_F(StartScript, StopEndsTheServerWithItsSupervisor)
{
    {
        int fd = open("/tmp/control", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(5, write(fd, "stop\n", 5));
        close(fd);
    }
    ASSERT_TRUE(ts::eventually([] { return ts::exists("/tmp/stopped"); }, 10000)) << init.log();
    EXPECT_TRUE(ts::eventually([&] { return processes_in(ns, kServer).empty(); }, 5000));
    EXPECT_TRUE(ts::eventually([&] { return processes_in(ns, "S50webserver supervise").empty(); }, 5000));
    // A server's threads may still be closing its files when its process has left the list.
    EXPECT_TRUE(ts::wait_for_port("127.0.0.1", 8080, false));
    EXPECT_FALSE(ts::exists("/run/webserver.pid"));
}

}  // namespace
