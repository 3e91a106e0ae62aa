# Before each package is made: manual pages and changelogs are compressed, as Debian has them.
file(GLOB_RECURSE files ${CPACK_TEMPORARY_DIRECTORY}/*.[18] ${CPACK_TEMPORARY_DIRECTORY}/changelog)
foreach(file ${files})
  execute_process(COMMAND gzip --best --no-name --force ${file} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
