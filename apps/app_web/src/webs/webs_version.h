// Name and version of the web layer, for the server's start-up header.
#pragma once

constexpr char WEBS_NAME[] = "webs (web layer on libmicrohttpd)";
// "1.0 (libmicrohttpd 0.9.75)": the layer's version and that of the library it runs on.
const char *websGetVersion();
