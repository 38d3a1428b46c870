# Warnings and Qt defines shared by every target of the project.
function(suc_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  target_compile_definitions(${target} PRIVATE
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
    QT_NO_FOREACH
    QT_USE_QSTRINGBUILDER
    QT_DISABLE_DEPRECATED_BEFORE=0x060400)
  if(DEFINED ENV{CI})
    set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ON)
  endif()
endfunction()

# One Qt Test program per area, run offscreen with assertions forced on.
function(suc_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;ENV" ${ARGN})
  add_executable(${name} ${name}.cpp ${ARG_SOURCES})
  suc_target_defaults(${name})
  target_compile_definitions(${name} PRIVATE QT_FORCE_ASSERTS
    SUC_TEST_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data")
  target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
  if(TARGET SucTestSupport)
    target_link_libraries(${name} PRIVATE SucTestSupport)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT
    "QT_QPA_PLATFORM=offscreen;QT_FORCE_ASSERTS=1;${SUC_TEST_ENV};${ARG_ENV}")
endfunction()
