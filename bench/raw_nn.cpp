// raw_nn IPC_URL COMMAND RECEIVER SECONDS
//
// The yardstick of the relay benchmark: request/reply exchanges with a device application
// over nanomsg alone, each on a socket opened, connected and closed for it, as the relay
// does, with the request text the relay sends for a body that is not JSON, and, like the
// server, one idle socket held open so that nanomsg keeps its worker thread. Prints the
// exchanges per second; a failed exchange ends the run.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>
#include <string>

namespace {

// The relay's time-outs for an ordinary command.
constexpr int kSendTimeoutMs = 100;
constexpr int kRecvTimeoutMs = 3000;

bool exchange(const char *url, const std::string &request)
{
    int sock = nn_socket(AF_SP, NN_REQ);
    if (sock < 0)
        return false;
    bool ok = false;
    int send_timeout = kSendTimeoutMs, recv_timeout = kRecvTimeoutMs;
    if (nn_connect(sock, url) >= 0 &&
        nn_setsockopt(sock, NN_SOL_SOCKET, NN_SNDTIMEO, &send_timeout, sizeof send_timeout) == 0 &&
        nn_send(sock, request.c_str(), request.size() + 1, 0) >= 0 &&
        nn_setsockopt(sock, NN_SOL_SOCKET, NN_RCVTIMEO, &recv_timeout, sizeof recv_timeout) == 0) {
        void *reply = nullptr;
        int got = nn_recv(sock, &reply, NN_MSG, 0);
        ok = got > 0;
        if (reply)
            nn_freemsg(reply);
    }
    nn_close(sock);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: raw_nn IPC_URL COMMAND RECEIVER SECONDS\n");
        return 2;
    }
    // The request as the relay prints it (formatted, members in order), with a fixed time.
    std::string request = std::string("{\n\t\"Command\":\t\"") + argv[2] + "\",\n\t\"Sender\":\t\"web_server\",\n\t"
                          "\"Receiver\":\t\"" + argv[3] + "\",\n\t\"Timestamp\":\t1700000000\n}";
    int kept_up = nn_socket(AF_SP, NN_PAIR);
    using clock = std::chrono::steady_clock;
    auto end = clock::now() + std::chrono::seconds(strtol(argv[4], nullptr, 10));
    auto start = clock::now();
    long done = 0;
    while (clock::now() < end) {
        if (!exchange(argv[1], request)) {
            fprintf(stderr, "raw_nn: exchange %ld failed: %s\n", done + 1, nn_strerror(nn_errno()));
            return 1;
        }
        ++done;
    }
    double secs = std::chrono::duration<double>(clock::now() - start).count();
    nn_close(kept_up);
    printf("%.1f\n", done / secs);
    return 0;
}
