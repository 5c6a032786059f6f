// "set_device_reboot": flushes the file systems and restarts the device.
#pragma once

// Returns 0 with no reply text of its own (*out_json is set to nullptr): the dispatcher
// answers with its plain success, which arrives only if the device is still up. Holds the
// calling thread for at least 11 seconds.
int actionSetDeviceReboot(const char *in_json, char **out_json);
