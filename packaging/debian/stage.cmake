# Run by CPack between installing and packing: what a Debian package has besides
# what every installation has.
set(debian "${CMAKE_CURRENT_LIST_DIR}")
set(root "${CPACK_TEMPORARY_DIRECTORY}")
set(doc "${root}/usr/share/doc/tolvane")
set(read OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

file(INSTALL "${debian}/../systemd/tolvane-collector.default" DESTINATION "${root}/etc/default"
  RENAME tolvane-collector)
file(INSTALL "${debian}/copyright" DESTINATION "${doc}")
file(INSTALL "${debian}/changelog" DESTINATION "${doc}" RENAME changelog.Debian)
file(INSTALL "${debian}/lintian-overrides" DESTINATION "${root}/usr/share/lintian/overrides"
  RENAME tolvane)

file(GLOB pages "${root}/usr/share/man/man*/*")
execute_process(COMMAND gzip -9nf ${pages} "${doc}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
# Whatever the umask of the one who packs.
file(GLOB_RECURSE entries LIST_DIRECTORIES true "${root}/*")
foreach(entry ${entries})
  if(IS_DIRECTORY "${entry}")
    file(CHMOD "${entry}" DIRECTORY_PERMISSIONS ${read} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  elseif(entry MATCHES "/bin/[^/]*$")
    file(CHMOD "${entry}" FILE_PERMISSIONS ${read} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  elseif(NOT IS_SYMLINK "${entry}")
    file(CHMOD "${entry}" FILE_PERMISSIONS ${read})
  endif()
endforeach()
