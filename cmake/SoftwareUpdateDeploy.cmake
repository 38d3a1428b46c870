# softwareupdate_deploy_updater(<target> [DESTINATION <dir>])
#
# Puts UpdateInstaller beside the program of <target>: copied next to it after every build, and
# installed into DESTINATION (default: the bin folder of GNUInstallDirs) with it. The ZIP
# installation route looks for the updater in the application's own folder.
function(softwareupdate_deploy_updater target)
  cmake_parse_arguments(ARG "" "DESTINATION" "" ${ARGN})
  if(NOT TARGET SoftwareUpdate::UpdateInstaller)
    message(FATAL_ERROR "softwareupdate_deploy_updater: SoftwareUpdate::UpdateInstaller is not known")
  endif()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different
            "$<TARGET_FILE:SoftwareUpdate::UpdateInstaller>" "$<TARGET_FILE_DIR:${target}>/"
    VERBATIM)
  if(NOT ARG_DESTINATION)
    include(GNUInstallDirs)
    set(ARG_DESTINATION "${CMAKE_INSTALL_BINDIR}")
  endif()
  install(PROGRAMS "$<TARGET_FILE:SoftwareUpdate::UpdateInstaller>" DESTINATION "${ARG_DESTINATION}")
endfunction()
