// The firmware upgrade: the posted image is stored as "/tmp/upgrade" and announced to the
// upgrade application, whose progress replies are followed to the end.
#pragma once

#include "webserver/msg_exchange.h"
#include "webserver/outcome.h"

#include <functional>

struct Webs;

constexpr const char UPGRADE_IMAGE_FILE[] = "/tmp/upgrade";

// Stores the request body as the image; returns the announcement text (the caller frees
// it), or nullptr when the image could not be stored.
char *http_upgrade_save_file(Webs *wp);

// Stores the image and exchanges the announcement on the upgrade application's route; done
// gets the exchange's outcome, or the written 550 reply when the image could not be stored.
void http_upgrade_relay(WebsHold hold, Route route, std::function<void(Outcome)> done);

// The "get_upgrade_progress" action: whether an upgrade is under way and the progress the
// upgrade application last reported, answered at once whatever else runs.
int actionGetUpgradeProgress(const char *in_json, char **out_json);
