# What is installed beside the programs: the unit, the manual, the completion, the operator's document and
# the examples. Nothing goes to /etc: without a configuration the service says so and ends.

set(VEL4_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
    "Where the systemd unit goes; relative to the installation prefix, or absolute")
configure_file(systemd/vel4_watch_folder_service.service.in vel4_watch_folder_service.service @ONLY)
configure_file(systemd/directory-mode.conf.in directory-mode.conf @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vel4_watch_folder_service.service
        DESTINATION ${VEL4_SYSTEMD_UNIT_DIR})

# The documents name the folder that they and the examples are installed in.
function(install_document path destination)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
  file(READ ${path} text)
  string(REPLACE /usr/share/doc/vel4-watch-folder ${CMAKE_INSTALL_FULL_DOCDIR} text "${text}")
  file(WRITE ${PROJECT_BINARY_DIR}/installed/${path} "${text}")
  install(FILES ${PROJECT_BINARY_DIR}/installed/${path} DESTINATION ${destination})
endfunction()
install_document(man/vel4_watch_folder_service.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_document(man/vel4_watch_folder_check.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_document(man/vel4_watch_folder.toml.5 ${CMAKE_INSTALL_MANDIR}/man5)
install_document(docs/operating.md ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/vel4_watch_folder.toml examples/cluster.sh examples/log-filter.awk
        examples/thin-archive examples/thin-archive.service examples/thin-archive.timer
        examples/watch-folder-status examples/watch-folder-status.service
        examples/watch-folder-status.timer
        ${PROJECT_BINARY_DIR}/directory-mode.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# The completion is found by the name of the command that is completed.
foreach(program vel4_watch_folder_service vel4_watch_folder_check)
  install(FILES completion/vel4_watch_folder.bash RENAME ${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()
