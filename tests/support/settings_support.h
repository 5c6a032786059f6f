// Helpers of the settings action tests: run a handler with its output captured, and the
// reply texts as the browser receives them.
#pragma once

#include <functional>
#include <string>

namespace ts {

struct HandlerRun {
    int rc = 0;
    std::string reply;  // "<null>" when the handler left no text
    std::string out, err;
};

// Calls handler(&reply_text) with stdout and stderr captured; frees the reply text.
HandlerRun call_handler(const std::function<int(char **)> &handler);

std::string fail_reply(const std::string &reason);
std::string ok_reply(const std::string &reason);
std::string params_reply(const std::string &reason, const std::string &params);

// The tail of a red error line written by func.
std::string error_line(const std::string &func, const std::string &message);

} // namespace ts
