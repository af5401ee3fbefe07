# What the toolchain files share: Debian's cross compiler for `target`, with the libraries that belong
# to it, and qemu-user's `emulator`, if installed, to run what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${target}-gcc)
set(CMAKE_CXX_COMPILER ${target}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${target})

# Programs are this machine's; headers, libraries and packages the target's.
set(CMAKE_FIND_ROOT_PATH /usr/${target})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()

find_program(HVLOGGER_EMULATOR NAMES qemu-${emulator}-static qemu-${emulator})
if(HVLOGGER_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${HVLOGGER_EMULATOR} -L /usr/${target})
endif()
