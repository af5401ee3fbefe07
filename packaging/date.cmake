# Read by cpack: what is packed carries the date of the commit, in a tree without one that of the
# newest entry in the changelog. So two builds of one commit give the same bytes.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(date_command "git log -1 --format=%ct 2>/dev/null ||
    date -d \"$(sed -n 's/^ -- .*>  //p' packaging/changelog | head -n 1)\" +%s")
  execute_process(COMMAND sh -c "${date_command}" WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/..
    OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{SOURCE_DATE_EPOCH} ${date})
endif()
