# Device profiles (scripts/cross.sh ARCH small|static):
#   small   the dependencies linked static (their pkg-config files' private libraries
#           included), -Os, link-time optimisation, unused sections dropped, libstdc++ and
#           libgcc linked in, so the binary needs nothing but the C library;
#   static  as small, and the C library linked in too: one file with no dependency at all.
# The default (empty) links the system's shared libraries.
set(WEB_PROFILE "" CACHE STRING "Device profile: empty, small or static")
set_property(CACHE WEB_PROFILE PROPERTY STRINGS "" small static)
if(WEB_PROFILE STREQUAL "small" OR WEB_PROFILE STREQUAL "static")
  set(PKG_CONFIG_ARGN --static)
  add_compile_options(-Os -ffunction-sections -fdata-sections)
  # Link-time optimisation across the server's own code (about 4 % smaller on armhf).
  include(CheckIPOSupported)
  check_ipo_supported(RESULT WEB_IPO OUTPUT WEB_IPO_ERROR LANGUAGES CXX)
  if(WEB_IPO)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
  else()
    message(STATUS "No link-time optimisation here: ${WEB_IPO_ERROR}")
  endif()
  add_link_options(-Wl,--gc-sections -Wl,--as-needed -static-libstdc++ -static-libgcc)
  if(WEB_PROFILE STREQUAL "static")
    add_link_options(-static)
  endif()
  # Added once the server's target exists (at the end of this directory's CMakeLists; the
  # deferred call reads the variable then).
  set(WEB_SMALL_TERMINATE ${CMAKE_CURRENT_LIST_DIR}/small_terminate.cpp)
  cmake_language(DEFER CALL target_sources webserver PRIVATE ${WEB_SMALL_TERMINATE})
elseif(WEB_PROFILE)
  message(FATAL_ERROR "WEB_PROFILE must be empty, small or static, not ${WEB_PROFILE}")
endif()
