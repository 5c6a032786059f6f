// What the simulator answers to a request: the replies given by the scenario file for the
// command, or the built-in behaviour of the device's applications.
#pragma once

#include "common/owners.h"

#include <optional>
#include <string>
#include <vector>

struct SimReply {
    int delay_ms = 0;                    // pause before this reply
    std::optional<std::string> raw;      // sent as it stands instead of a reply message
    std::optional<std::string> command;  // the reply's "Command"; unset echoes the request's
    CJsonPtr response;                   // the reply's "Response", any JSON value
};

// The replies to one request, in order; none means the application stays silent.
using SimPlan = std::vector<SimReply>;

// Loads the scenario file: a JSON object of command names, each with "Response", "raw",
// "Command", "delay_ms", "replies" or "silent". False after printing why it is refused.
bool sim_load_scenario(const char *path);

// The replies to a request for command whose "Parameters" are params (may be null).
SimPlan sim_plan_for(const char *command, const cJSON *params);
