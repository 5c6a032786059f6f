# Shared part of the cross toolchain files (toolchain-armhf.cmake, toolchain-arm64.cmake):
# Debian's cross compilers (crossbuild-essential-ARCH) against a sysroot unpacked from
# Debian's packages for the target (scripts/cross.sh makes it). The sysroot comes from
# -DWEB_SYSROOT=... or the environment variable WEB_SYSROOT; without one, the compiler's
# own C library is used and only the server's dependencies must be found elsewhere (the
# small profile builds them itself).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${WEB_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${WEB_CROSS_TRIPLET}-g++)

if(NOT WEB_SYSROOT AND DEFINED ENV{WEB_SYSROOT})
  set(WEB_SYSROOT $ENV{WEB_SYSROOT})
endif()
# Compiler checks run in their own projects; they need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES WEB_SYSROOT)

if(WEB_SYSROOT)
  set(CMAKE_SYSROOT ${WEB_SYSROOT})
  # Shared libraries in the sysroot name their own dependencies, which the linker must find
  # there too (Debian's multiarch folders).
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
    " -Wl,-rpath-link,${WEB_SYSROOT}/lib/${WEB_CROSS_TRIPLET}"
    " -Wl,-rpath-link,${WEB_SYSROOT}/usr/lib/${WEB_CROSS_TRIPLET}")
  if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
    set(ENV{PKG_CONFIG_LIBDIR}
      "${WEB_SYSROOT}/usr/lib/${WEB_CROSS_TRIPLET}/pkgconfig:${WEB_SYSROOT}/usr/lib/pkgconfig:${WEB_SYSROOT}/usr/share/pkgconfig")
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${WEB_SYSROOT})
  endif()
endif()

# Programs (the build's tools) from the machine; libraries, headers and packages of the
# target only.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
