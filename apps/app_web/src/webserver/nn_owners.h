// Owners for nanomsg resources: a socket is closed and a received message freed on every
// exit path of the code that took it.
#pragma once

#include <memory>
#include <nanomsg/nn.h>
#include <utility>

struct NnMsgFree {
    void operator()(void *msg) const { nn_freemsg(msg); }
};
// A message that nn_recv allocated (NN_MSG).
using NnMsgPtr = std::unique_ptr<void, NnMsgFree>;

// A nanomsg socket id; -1 holds nothing.
class NnSocket {
public:
    NnSocket() = default;
    explicit NnSocket(int sock) : sock_(sock) {}
    NnSocket(NnSocket &&other) noexcept : sock_(other.release()) {}
    NnSocket &operator=(NnSocket &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    NnSocket(const NnSocket &) = delete;
    NnSocket &operator=(const NnSocket &) = delete;
    ~NnSocket() { reset(); }

    int get() const { return sock_; }
    explicit operator bool() const { return sock_ >= 0; }
    int release() { return std::exchange(sock_, -1); }
    void reset(int sock = -1)
    {
        if (sock_ >= 0)
            nn_close(sock_);
        sock_ = sock;
    }

private:
    int sock_ = -1;
};
