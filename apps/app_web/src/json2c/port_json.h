// Request body of "SetWebServerParameter" and "GetWebServerPortStatus", and the port file:
// {"Port": number}.
#pragma once

// Stores the integer value of "Port" in *port. 0; -2 for a missing argument or a missing or
// non-numeric "Port"; -15 when text is not JSON.
int getPortFormatFromJSON(const char *text, int *port);
