# 64-bit ARM (Debian arm64: ARMv8-A).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(WEB_CROSS_TRIPLET aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
