// The port file's text: {"Port": port}.
#pragma once

// -1 stands for "no port" and is written as the default port 80.
constexpr int WEB_PORT_NONE = -1;
constexpr int WEB_PORT_DEFAULT = 80;

// Stores the formatted text in *out (the caller frees it). 0; -2 when out is missing; -15
// when the object cannot be made.
int formatPortParamJSON(char **out, int port);
