// The port file's text: {"Port": port}.
#pragma once

// Stores the formatted text in *out (the caller frees it); WEB_PORT_NONE is written as
// WEB_PORT_DEFAULT. 0; -2 when out is missing; -15 when the object cannot be made.
int formatPortParamJSON(char **out, int port);
