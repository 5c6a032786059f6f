// devicesim ROUTING_FILE [SCENARIO_FILE]
//
// Stands in for the device's applications: binds a reply socket at every IPC address of the
// routing file (a pair socket for the upgrade application, which sends several replies) and
// answers each request as the application would, or as the scenario file says. Each socket
// has a thread of its own and serves one request at a time. SIGTERM or SIGINT stops it.
#include "answers.h"
#include "common/log.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kSendTimeoutMs = 1000;  // a requester that went away must not hold a socket's thread

struct Endpoint {
    std::string receiver;
    std::string url;
    bool pair = false;
    NnSocket sock;
};

std::mutex stop_mutex;
std::condition_variable stop_cv;
bool stopping = false;

// Waits ms milliseconds; false when the simulator is told to stop meanwhile.
bool pause_ms(int ms)
{
    std::unique_lock<std::mutex> lock(stop_mutex);
    return !stop_cv.wait_for(lock, std::chrono::milliseconds(ms), [] { return stopping; });
}

// The text on one log line, control characters escaped.
std::string one_line(const char *text, size_t len)
{
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != 0x7f) {
            out += static_cast<char>(c);
            continue;
        }
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\x%02x", c);
        out += escaped;
    }
    return out;
}

void send_reply(const Endpoint &ep, const char *command, const SimReply &reply)
{
    if (reply.delay_ms > 0 && !pause_ms(reply.delay_ms))
        return;
    int sent;
    if (reply.raw) {
        HTTP_PRINT("devicesim: %s raw reply to %s: %s\n", ep.receiver.c_str(), command,
                   one_line(reply.raw->data(), reply.raw->size()).c_str());
        sent = nn_send(ep.sock.get(), reply.raw->data(), reply.raw->size(), 0);
    } else {
        CJsonPtr msg(cJSON_CreateObject());
        cJSON_AddStringToObject(msg.get(), "Command", reply.command ? reply.command->c_str() : command);
        cJSON_AddItemToObject(msg.get(), "Response", cJSON_Duplicate(reply.response.get(), true));
        HeapText text(cJSON_PrintUnformatted(msg.get()));
        HeapText shown(cJSON_Print(reply.response.get()));
        if (!text)
            return;
        // Printed as the server prints it, so a relayed answer can be compared byte for byte.
        HTTP_PRINT("devicesim: %s Response to %s:\n%s\n", ep.receiver.c_str(), command,
                   shown ? shown.get() : "(none)");
        sent = nn_send(ep.sock.get(), text.get(), strlen(text.get()) + 1, 0);
    }
    if (sent < 0)
        HTTP_PRINT("devicesim: %s could not reply to %s: %s\n", ep.receiver.c_str(), command,
                   nn_strerror(nn_errno()));
}

void answer(const Endpoint &ep, const char *text, size_t len)
{
    CJsonPtr request(cJSON_ParseWithLength(text, len));
    HeapText compact(request ? cJSON_PrintUnformatted(request.get()) : nullptr);
    HTTP_PRINT("devicesim: %s request: %s\n", ep.receiver.c_str(),
               compact ? compact.get() : one_line(text, len).c_str());

    const cJSON *command = cJSON_GetObjectItemCaseSensitive(request.get(), "Command");
    SimPlan plan;
    if (cJSON_IsString(command)) {
        plan = sim_plan_for(command->valuestring, cJSON_GetObjectItemCaseSensitive(request.get(), "Parameters"));
    } else {
        SimReply refusal;
        refusal.command = "";
        refusal.response.reset(cJSON_Parse(R"({"Result":"Fail","Reason":"Invalid request"})"));
        plan.push_back(std::move(refusal));
    }
    const char *name = cJSON_IsString(command) ? command->valuestring : "";
    if (plan.empty()) {
        HTTP_PRINT("devicesim: %s stays silent to %s\n", ep.receiver.c_str(), name);
        return;
    }
    // A reply socket carries one reply per request: of a sequence only the last goes out.
    for (size_t i = ep.pair ? 0 : plan.size() - 1; i < plan.size(); ++i)
        send_reply(ep, name, plan[i]);
}

void serve(const Endpoint &ep)
{
    for (;;) {
        void *buf = nullptr;
        int got = nn_recv(ep.sock.get(), &buf, NN_MSG, 0);
        if (got < 0) {
            int err = nn_errno();
            if (err == EINTR || err == EAGAIN)
                continue;
            if (err != ETERM && err != EBADF)
                HTTP_PRINT("devicesim: %s stops serving: %s\n", ep.receiver.c_str(), nn_strerror(err));
            return;
        }
        NnMsgPtr msg(buf);
        const char *text = static_cast<const char *>(buf);
        answer(ep, text, strnlen(text, static_cast<size_t>(got)));
    }
}

// One socket per distinct IPC address of the table; empty after printing why on failure.
std::vector<Endpoint> bind_endpoints(const char *routing_file)
{
    std::vector<Endpoint> endpoints;
    for (const http_protocol_receiver &entry : http_protocol_command) {
        if (strcmp(entry.receiver_name, HTTP_RECEIVER_DEVICE_CAP) == 0 || !http_is_ipc_url(entry.ipc_url))
            continue;
        bool known = false;
        for (const Endpoint &ep : endpoints)
            known = known || ep.url == entry.ipc_url;
        if (known)
            continue;
        Endpoint ep;
        ep.receiver = entry.receiver_name;
        ep.url = entry.ipc_url;
        ep.pair = ep.receiver == HTTP_RECEIVER_APP_UPDATE;
        ep.sock.reset(nn_socket(AF_SP, ep.pair ? NN_PAIR : NN_REP));
        int timeout = kSendTimeoutMs;
        if (!ep.sock || nn_setsockopt(ep.sock.get(), NN_SOL_SOCKET, NN_SNDTIMEO, &timeout, sizeof timeout) < 0 ||
            nn_bind(ep.sock.get(), ep.url.c_str()) < 0) {
            HTTP_PRINT("devicesim: cannot serve %s at %s: %s\n", ep.receiver.c_str(), ep.url.c_str(),
                       nn_strerror(nn_errno()));
            return {};
        }
        HTTP_PRINT("devicesim: %s at %s (%s)\n", ep.receiver.c_str(), ep.url.c_str(), ep.pair ? "pair" : "reply");
        endpoints.push_back(std::move(ep));
    }
    if (endpoints.empty())
        HTTP_PRINT("devicesim: %s routes no command to an IPC address\n", routing_file);
    return endpoints;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        HTTP_PRINT("usage: devicesim ROUTING_FILE [SCENARIO_FILE]\n");
        return 2;
    }
    // The stop signals are taken by sigwait below, never by a serving thread.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (http_read_routing_file(argv[1]) != 0) {
        HTTP_PRINT("devicesim: cannot use routing file %s\n", argv[1]);
        return 1;
    }
    if (argc == 3 && !sim_load_scenario(argv[2]))
        return 1;
    std::vector<Endpoint> endpoints = bind_endpoints(argv[1]);
    if (endpoints.empty())
        return 1;

    std::vector<std::thread> servers;
    for (const Endpoint &ep : endpoints)
        servers.emplace_back(serve, std::cref(ep));
    HTTP_PRINT("devicesim: ready\n");

    int sig = 0;
    sigwait(&stop_signals, &sig);
    HTTP_PRINT("devicesim: stopping on signal %d\n", sig);
    {
        std::lock_guard<std::mutex> lock(stop_mutex);
        stopping = true;
    }
    stop_cv.notify_all();
    nn_term();  // wakes every thread blocked in nn_recv or nn_send
    for (std::thread &t : servers)
        t.join();
    return 0;  // the sockets close with their owners; nanomsg removes the files it bound
}
