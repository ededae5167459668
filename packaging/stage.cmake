# Run by CPack between installing and packing. Adds the files that only the Debian
# package has.
set(debian "${CMAKE_CURRENT_LIST_DIR}")
set(root "${CPACK_TEMPORARY_DIRECTORY}")
set(doc "${root}/usr/share/doc/tolvane")
set(read OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# Copied, because file(INSTALL) would prefix the root a second time.
configure_file("${debian}/../systemd/tolvane-collector.default" "${root}/etc/default/tolvane-collector" COPYONLY)
configure_file("${debian}/copyright" "${doc}/copyright" COPYONLY)
configure_file("${debian}/changelog" "${doc}/changelog.Debian" COPYONLY)
configure_file("${debian}/lintian-overrides" "${root}/usr/share/lintian/overrides/tolvane" COPYONLY)

file(GLOB pages "${root}/usr/share/man/man*/*")
execute_process(COMMAND gzip -9nf ${pages} "${doc}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
# Independent of the packager's umask.
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
