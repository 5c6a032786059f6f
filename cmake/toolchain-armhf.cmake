# 32-bit ARM, hard float (Debian armhf: ARMv7, Thumb-2, VFPv3-D16).
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WEB_CROSS_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
# GCC notes every std::vector iterator passed by value that its ABI changed in GCC 7.1;
# nothing here links objects of a compiler that old.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
