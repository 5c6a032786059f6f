// What an action ends with: a reply it wrote itself, or a result for the dispatcher's reply
// choice (its reply text when there is one, else the plain success for 0 or the coded
// failure with the result and the reason).
#pragma once

#include "common/owners.h"
#include "webserver/device_message.h"

#include <cstdio>

struct Outcome {
    bool replied = false;
    int result = 0;
    HeapText out;
    char reason[HTTP_REASON_SIZE] = "";

    static Outcome written()
    {
        Outcome o;
        o.replied = true;
        return o;
    }
    // Takes out over.
    static Outcome of(int result, char *out = nullptr, const char *reason = "")
    {
        Outcome o;
        o.result = result;
        o.out.reset(out);
        snprintf(o.reason, sizeof o.reason, "%s", reason ? reason : "");
        return o;
    }
};
