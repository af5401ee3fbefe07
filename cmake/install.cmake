include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The program with its manual, its service, and the documents for those who run it.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME program)
install(TARGETS hvlogger RUNTIME)
install(CODE "file(ARCHIVE_CREATE OUTPUT \"${CMAKE_CURRENT_BINARY_DIR}/hvlogger.1.gz\"
  PATHS \"${CMAKE_CURRENT_SOURCE_DIR}/docs/hvlogger.1\" FORMAT raw COMPRESSION GZip)")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hvlogger.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/hvlogger.service DESTINATION lib/systemd/system)
install(FILES packaging/60-hvlogger.conf TYPE DOC)
install(DIRECTORY docs examples TYPE DOC FILES_MATCHING
  PATTERN "*.md" PATTERN performance.svg PATTERN "*.conf" PATTERN "*.py" PATTERN "*.cpp" PATTERN architecture.md EXCLUDE)

# The support library as a package for other projects: headers, static libraries, a CMake package
# and a pkg-config file. All of it finds its parts from where it lies, so it can be moved.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

foreach(part mediator selector socket time logger)
  set_target_properties(qel${part} PROPERTIES EXPORT_NAME ${part})
  target_compile_features(qel${part} INTERFACE cxx_std_20)
  install(TARGETS qel${part} EXPORT hvlogger ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY lib/${part}/ DESTINATION include/hvlogger
    FILES_MATCHING PATTERN "*.h" PATTERN QELlogger5line.h EXCLUDE)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/hvlogger)
install(EXPORT hvlogger NAMESPACE hvlogger:: FILE hvloggerTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(cmake/hvloggerConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/hvloggerConfigVersion.cmake DESTINATION ${package_dir})

file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/hvlogger.pc.in ${CMAKE_CURRENT_BINARY_DIR}/hvlogger.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hvlogger.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
