# 64-bit ARM with Debian's cross compiler (g++-aarch64-linux-gnu).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(target aarch64-linux-gnu)
set(emulator aarch64)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
