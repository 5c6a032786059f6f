// The "device" action: every JSON request of the web pages arrives here.
#pragma once

struct Webs;

void actionGetMethodUrl(Webs *wp);
