# Run by cpack on what it is about to pack: folders are everybody's to read, whatever the umask is.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -type d -exec chmod 755 {} +
  COMMAND_ERROR_IS_FATAL ANY)
