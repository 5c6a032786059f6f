// Capability actions: commands listed under the routing table's "device_cap" receiver,
// each answered with the JSON file named beside it.
#pragma once

// Replies with the file at cap_path inserted as it stands under "Parameters". 0; -1 when the
// path is missing ("Invalid input params") or names no usable file, an empty path included
// ("Failed to get params": missing, empty or not one JSON value). in_json is not read.
int actionGetDeviceCap(const char *cap_path, const char *in_json, char **out_json);
