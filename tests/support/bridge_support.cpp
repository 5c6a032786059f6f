#include "bridge_support.h"

#include "common/owners.h"
#include "webserver/device_message.h"
#include "webserver/msg_exchange.h"
#include "webserver/routing_table.h"

#include <gtest/gtest.h>
#include <nanomsg/nn.h>

namespace bs {

int load_routes(const std::string &text)
{
    ts::write_file(HTTP_COMMAND_FILE, text);
    return http_read_config_command();
}

std::string msg(const std::string &command, const std::string &response)
{
    return R"({"Command":")" + command + R"(","Response":)" + response + "}" + std::string(1, '\0');
}

Peer::Peer(const std::string &url, int protocol, std::vector<std::vector<std::string>> answers)
    : sock_(nn_socket(AF_SP, protocol)), answers_(std::move(answers))
{
    int poll_ms = 20;  // how often the peer looks whether the test is done with it
    nn_setsockopt(sock_, NN_SOL_SOCKET, NN_RCVTIMEO, &poll_ms, sizeof poll_ms);
    EXPECT_GE(nn_bind(sock_, url.c_str()), 0) << url << ": " << nn_strerror(nn_errno());
    thread_ = std::thread([this] {
        for (size_t served = 0; !stop_;) {
            char *buf = nullptr;
            int got = nn_recv(sock_, &buf, NN_MSG, 0);
            if (got < 0)
                continue;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.emplace_back(buf, static_cast<size_t>(got));
            }
            nn_freemsg(buf);
            for (const std::string &reply : served < answers_.size() ? answers_[served] : std::vector<std::string>{})
                nn_send(sock_, reply.data(), reply.size(), 0);
            ++served;
        }
    });
}

Peer::~Peer()
{
    stop_ = true;
    thread_.join();
    nn_close(sock_);
}

std::vector<std::string> Peer::requests()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

int relay(const std::string &command, const char *payload, std::string *reply, std::string *reason)
{
    int sock = -1, index = -1;
    char receiver[HTTP_RECEIVER_NAME_SIZE] = "";
    if (http_protocol_matching(command.c_str(), &sock, receiver, &index, payload) != 1)
        return -1;
    char why[HTTP_REASON_SIZE] = "";
    char *out = nullptr;
    int rc = http_send_and_recv_app_codec(command.c_str(), why, payload, &out, sock, receiver);
    http_msg_socket_uninit(index);
    HeapText owned(out);
    *reply = out ? out : "";
    if (reason)
        *reason = why;
    return rc;
}

ts::Process start_sim(const std::string &scenario_json)
{
    std::vector<std::string> argv = {ts::bin_path("devicesim"), HTTP_COMMAND_FILE};
    if (!scenario_json.empty()) {
        ts::write_file("/tmp/scenario.json", scenario_json);
        argv.push_back("/tmp/scenario.json");
    }
    ts::Process sim(argv, "/tmp/devicesim.log");
    EXPECT_TRUE(sim.wait_for_log("devicesim: ready\n", 5000)) << sim.log();
    return sim;
}

} // namespace bs
