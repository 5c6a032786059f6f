#include "layer_server.h"

#include "testsupport.h"
#include "webs/webs.h"

#include <csignal>

namespace ts {

bool LayerServer::open(const std::string &routes)
{
    signal(SIGPIPE, SIG_IGN);  // a client that went away must not end the test
    write_file("/mnt/routes.txt", routes);
    if (websOpen("/mnt/www", "/mnt/routes.txt") != 0)
        return false;
    open_ = true;
    port_ = free_port();
    return websListen(("http://127.0.0.1:" + std::to_string(port_)).c_str()) >= 0;
}

void LayerServer::run()
{
    finished_ = 0;
    loop_ = std::thread([this] { websServiceEvents(&finished_); });
}

void LayerServer::stop()
{
    finished_ = 1;
    if (loop_.joinable())
        loop_.join();
    if (open_)
        websClose();
    open_ = false;
}

} // namespace ts
