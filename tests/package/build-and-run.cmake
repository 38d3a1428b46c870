# Installs the built project into a staging prefix, builds the package host against it and runs it.
foreach(var BUILD_DIR SOURCE_DIR LINK_FLAGS)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()
set(stage "${BUILD_DIR}/package-stage")
set(hostbuild "${BUILD_DIR}/package-host")
file(REMOVE_RECURSE "${stage}" "${hostbuild}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${stage}" --strip
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${hostbuild}"
                        "-DCMAKE_PREFIX_PATH=${stage}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the host against the installed package failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${hostbuild}" --parallel 2 RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the host failed")
endif()
execute_process(COMMAND "${hostbuild}/package_host" connections RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the host failed: ${rc}")
endif()
# Installed from its own package, the host updates itself without dialogs, scenario by scenario.
execute_process(COMMAND "${SOURCE_DIR}/../in-private-network.sh" "${SOURCE_DIR}/scenarios.sh"
                        "${hostbuild}" "${stage}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the update scenarios failed")
endif()
# Installed, the host has the updater beside its program too.
execute_process(COMMAND ${CMAKE_COMMAND} --install "${hostbuild}" --prefix "${hostbuild}/installed"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc OR NOT EXISTS "${hostbuild}/installed/bin/UpdateInstaller")
  message(FATAL_ERROR "installing the host did not put UpdateInstaller into its bin folder")
endif()
# Hosts without CMake: the pkg-config file names the library and its include folder.
file(GLOB_RECURSE pcfile "${stage}/*/SoftwareUpdateClient.pc")
get_filename_component(pcdir "${pcfile}" DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env "PKG_CONFIG_PATH=${pcdir}"
                        pkg-config --cflags --libs SoftwareUpdateClient
                OUTPUT_VARIABLE flags RESULT_VARIABLE rc)
if(rc OR NOT flags MATCHES "-lSoftwareUpdateClient" OR NOT flags MATCHES "/include/SoftwareUpdateClient")
  message(FATAL_ERROR "pkg-config: ${rc} ${flags}")
endif()
message(STATUS "pkg-config: ${flags}")
