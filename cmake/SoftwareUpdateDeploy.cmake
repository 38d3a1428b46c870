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

# softwareupdate_add_package(TARGET <app> VERSION <version> [FORMAT zip|tar.gz]
#                            [NAME <name>] [FILES <file>...] [OUTPUT_DIRECTORY <dir>]
#                            [PACKAGE_TARGET <target>])
#
# Adds a target (<app>-package unless PACKAGE_TARGET names another) that builds the application
# folder the updater installs and packs it as <OUTPUT_DIRECTORY>/<NAME>-<VERSION>.<FORMAT> (NAME
# defaults to <app>, OUTPUT_DIRECTORY to the current binary folder, FORMAT to zip). The folder,
# <NAME>-<VERSION>/ in the archive, is flat: the program with its exec bits and a RUNPATH of
# $ORIGIN, UpdateInstaller, the library under its SONAME, and the FILES. An update replaces the
# folder that holds the program, so everything the application needs from the package lies in it.
# Publish the archive with `softupdate add`.
set(_SOFTWAREUPDATE_PACK_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/SoftwareUpdatePack.cmake")
function(softwareupdate_add_package)
  cmake_parse_arguments(ARG "" "TARGET;VERSION;FORMAT;NAME;OUTPUT_DIRECTORY;PACKAGE_TARGET" "FILES"
                        ${ARGN})
  if(NOT ARG_TARGET OR NOT TARGET "${ARG_TARGET}")
    message(FATAL_ERROR "softwareupdate_add_package: TARGET must name an executable target")
  endif()
  if(NOT ARG_VERSION MATCHES "^[0-9A-Za-z][0-9A-Za-z._+-]*$")
    message(FATAL_ERROR "softwareupdate_add_package: VERSION \"${ARG_VERSION}\" is not a version")
  endif()
  if(NOT ARG_FORMAT)
    set(ARG_FORMAT zip)
  endif()
  if(NOT ARG_FORMAT MATCHES "^(zip|tar\\.gz)$")
    message(FATAL_ERROR "softwareupdate_add_package: FORMAT is zip or tar.gz, not ${ARG_FORMAT}")
  endif()
  if(NOT ARG_NAME)
    set(ARG_NAME "${ARG_TARGET}")
  endif()
  if(NOT ARG_OUTPUT_DIRECTORY)
    set(ARG_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}")
  endif()
  if(NOT ARG_PACKAGE_TARGET)
    set(ARG_PACKAGE_TARGET "${ARG_TARGET}-package")
  endif()
  foreach(needed SoftwareUpdate::Client SoftwareUpdate::UpdateInstaller)
    if(NOT TARGET ${needed})
      message(FATAL_ERROR "softwareupdate_add_package: ${needed} is not known")
    endif()
  endforeach()
  set(files)
  foreach(file IN LISTS ARG_FILES)
    get_filename_component(file "${file}" ABSOLUTE)
    list(APPEND files "${file}")
  endforeach()
  # The program needs a RUNPATH entry for the packing to rewrite as $ORIGIN.
  set_property(TARGET ${ARG_TARGET} APPEND PROPERTY BUILD_RPATH "$ORIGIN")
  set(base "${ARG_NAME}-${ARG_VERSION}")
  set(archive "${ARG_OUTPUT_DIRECTORY}/${base}.${ARG_FORMAT}")
  set(stage "${CMAKE_CURRENT_BINARY_DIR}/softwareupdate-packages/${ARG_PACKAGE_TARGET}")
  string(REPLACE ";" "|" files_arg "${files}")
  add_custom_command(OUTPUT "${archive}"
    COMMAND ${CMAKE_COMMAND} "-DSTAGE=${stage}" "-DBASE=${base}" "-DARCHIVE=${archive}"
            "-DFORMAT=${ARG_FORMAT}" "-DPROGRAM=$<TARGET_FILE:${ARG_TARGET}>"
            "-DUPDATER=$<TARGET_FILE:SoftwareUpdate::UpdateInstaller>"
            "-DLIBRARY=$<TARGET_FILE:SoftwareUpdate::Client>"
            "-DSONAME=$<TARGET_SONAME_FILE_NAME:SoftwareUpdate::Client>" "-DFILES=${files_arg}"
            -P "${_SOFTWAREUPDATE_PACK_SCRIPT}"
    DEPENDS ${ARG_TARGET} ${files} "${_SOFTWAREUPDATE_PACK_SCRIPT}"
    COMMENT "Packing ${base}.${ARG_FORMAT}"
    VERBATIM)
  add_custom_target(${ARG_PACKAGE_TARGET} DEPENDS "${archive}")
endfunction()
