// The upgrade progress as the browser reads it: {"UpgradeRunning": bool, "UpgradeProgressValue": N}.
#pragma once

// Stores the formatted text in *out (the caller frees it). 0; -2 when out is missing; -15
// when the object cannot be made.
int formatUpgradeProgressJSON(char **out, bool running, int value);
