# `cpack` makes two Debian packages: hvlogger, the program, and libhvlogger-dev, the support library.
set(CPACK_GENERATOR DEB)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/date.cmake)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/permissions.cmake)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON) # whatever those of the source tree are
set(CPACK_COMPONENTS_ALL program development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "hvlogger developers <hvlogger@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME hvlogger)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION "collector and viewer of a networked device's log lines
The server takes syslog lines as UDP datagrams, keeps the newest in memory,
passes each on to the local system log, and serves one viewer over TCP. The
viewer shows them on a terminal, filtered by single keys.")
if(CMAKE_CROSSCOMPILING)
  # Debian's cross compilers bring libraries that dpkg knows under other names only.
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "libc6 (>= 2.36)")
else()
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS "rsyslog, rsyslog-relp")
foreach(script postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PROGRAM_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/${script})
endforeach()

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhvlogger-dev)
# CMake before 3.31 has no name for the second field: with it two architectures install side by side.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION "libdevel\nMulti-Arch: same")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "event loop, sockets, logging and time for C++20 processes
Headers and static libraries of hvlogger's support library, with a CMake
package and a pkg-config file.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS libc6-dev)

include(CPack)
