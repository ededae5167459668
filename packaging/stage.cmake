# Run by CPack between installing and packing. Adds the files that only packages have.
set(source "${CMAKE_CURRENT_LIST_DIR}")
set(root "${CPACK_TEMPORARY_DIRECTORY}")
set(doc "${root}/usr/share/doc/tolvane")
set(read OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# Copied, because file(INSTALL) would prefix the root a second time.
configure_file("${source}/systemd/tolvane-collector.default" "${root}/etc/default/tolvane-collector" COPYONLY)
if(CPACK_GENERATOR STREQUAL RPM)
  configure_file("${source}/../LICENSE" "${root}/usr/share/licenses/tolvane/LICENSE" COPYONLY)
else()
  configure_file("${source}/debian/copyright" "${doc}/copyright" COPYONLY)
  configure_file("${source}/debian/changelog" "${doc}/changelog.Debian" COPYONLY)
  configure_file("${source}/debian/lintian-overrides" "${root}/usr/share/lintian/overrides/tolvane" COPYONLY)
endif()

file(GLOB programs "${root}/usr/bin/*" "${root}/usr/lib/tolvane/lib/*/*.so")
execute_process(COMMAND strip --remove-section=.comment --remove-section=.note ${programs}
  COMMAND_ERROR_IS_FATAL ANY)
file(GLOB compressed "${root}/usr/share/man/man*/*" "${doc}/changelog.Debian")
execute_process(COMMAND gzip -9nf ${compressed} COMMAND_ERROR_IS_FATAL ANY)
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
