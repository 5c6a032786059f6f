# Device profiles (scripts/cross.sh ARCH small|static):
#   small   the dependencies linked static (their pkg-config files' private libraries
#           included), -Os, unused sections dropped, libstdc++ and libgcc linked in, so the
#           binary needs nothing but the C library;
#   static  as small, and the C library linked in too: one file with no dependency at all.
# The default (empty) links the system's shared libraries.
set(WEB_PROFILE "" CACHE STRING "Device profile: empty, small or static")
set_property(CACHE WEB_PROFILE PROPERTY STRINGS "" small static)
if(WEB_PROFILE STREQUAL "small" OR WEB_PROFILE STREQUAL "static")
  set(PKG_CONFIG_ARGN --static)
  add_compile_options(-Os -ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections -Wl,--as-needed -static-libstdc++ -static-libgcc)
  if(WEB_PROFILE STREQUAL "static")
    add_link_options(-static)
  endif()
elseif(WEB_PROFILE)
  message(FATAL_ERROR "WEB_PROFILE must be empty, small or static, not ${WEB_PROFILE}")
endif()
