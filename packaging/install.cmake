# Libraries lie under the architecture's folder, where Debian has them.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Libraries, under the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# A file compressed as Debian has it: without the time, so that each build gives the same bytes.
function(hv_install_compressed file name destination)
  set(compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
  install(CODE "execute_process(COMMAND gzip -9nc \"${CMAKE_CURRENT_SOURCE_DIR}/${file}\"
    OUTPUT_FILE \"${compressed}\" COMMAND_ERROR_IS_FATAL ANY)")
  install(FILES ${compressed} DESTINATION ${destination})
endfunction()

# The program with its manual, its service, and the documents for those who run it.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME program)
install(TARGETS hvlogger RUNTIME)
hv_install_compressed(docs/hvlogger.1 hvlogger.1 ${CMAKE_INSTALL_MANDIR}/man1)
hv_install_compressed(packaging/changelog changelog ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/hvlogger.service DESTINATION lib/systemd/system)
install(FILES packaging/60-hvlogger.conf DESTINATION lib/sysctl.d)
install(FILES docs/running.md docs/protocol.md docs/fleet.md docs/security.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(DIRECTORY examples TYPE DOC
  FILES_MATCHING PATTERN "*.conf" PATTERN "*.py" PATTERN "*.cpp")

# The support library as a package for other projects: headers, static libraries, a CMake package
# and a pkg-config file. All of it finds its parts from where it lies, so it can be moved.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
hv_install_compressed(packaging/changelog changelog ${CMAKE_INSTALL_DATADIR}/doc/libhvlogger-dev)

foreach(part mediator selector socket time logger)
  set_target_properties(qel${part} PROPERTIES EXPORT_NAME ${part})
  target_compile_features(qel${part} INTERFACE cxx_std_20)
  install(TARGETS qel${part} EXPORT hvlogger ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY lib/${part}/ DESTINATION include/hvlogger
    FILES_MATCHING PATTERN "*.h" PATTERN QELlogger5line.h EXCLUDE)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/hvlogger)
install(EXPORT hvlogger NAMESPACE hvlogger:: FILE hvloggerTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(packaging/hvloggerConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfigVersion.cmake DESTINATION ${package_dir})

file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(packaging/hvlogger.pc.in ${CMAKE_CURRENT_BINARY_DIR}/hvlogger.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hvlogger.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
