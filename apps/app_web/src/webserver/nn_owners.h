// Owners for nanomsg resources: a socket is closed and a received message freed on every
// exit path of the code that took it.
#pragma once

#include "common/owners.h"

#include <memory>
#include <nanomsg/nn.h>

struct NnMsgFree {
    void operator()(void *msg) const { nn_freemsg(msg); }
};
// A message that nn_recv allocated (NN_MSG).
using NnMsgPtr = std::unique_ptr<void, NnMsgFree>;

struct NnSocketCloser {
    void operator()(int sock) const { nn_close(sock); }
};
// A nanomsg socket id.
using NnSocket = UniqueHandle<NnSocketCloser>;
