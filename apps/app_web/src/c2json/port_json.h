// The port file's text: {"Port": port}.
#pragma once

// -1 stands for "no port": the port file is then written with the default port.
constexpr int WEB_PORT_NONE = -1;
// The port of a device whose port file is missing: the browser's default for http.
constexpr int WEB_PORT_DEFAULT = 80;

// Stores the formatted text in *out (the caller frees it); WEB_PORT_NONE is written as
// WEB_PORT_DEFAULT. 0; -2 when out is missing; -15 when the object cannot be made.
int formatPortParamJSON(char **out, int port);
