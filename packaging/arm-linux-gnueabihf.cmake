# 32-bit ARM with Debian's cross compiler (g++-arm-linux-gnueabihf).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(target arm-linux-gnueabihf)
set(emulator arm)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
