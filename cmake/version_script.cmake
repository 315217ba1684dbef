# qlk_export_declared(target VERSION name MACRO macro HEADERS header...)
#
# Gives a shared library, which then stays in its process, a version script that exports exactly the names that its public headers declare with the macro. The headers
# are the one list of what leaves the library.
function(qlk_export_declared target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "VERSION;MACRO" "HEADERS")
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  set(generator ${PROJECT_SOURCE_DIR}/cmake/write_version_script.cmake)
  add_custom_command(OUTPUT ${script}
                     COMMAND ${CMAKE_COMMAND} -D VERSION=${ARG_VERSION} -D MACRO=${ARG_MACRO} -D "HEADERS=${ARG_HEADERS}"
                             -D OUTPUT=${script} -P ${generator}
                     DEPENDS ${ARG_HEADERS} ${generator}
                     COMMENT "Listing the names that ${target} exports" VERBATIM)
  target_sources(${target} PRIVATE ${script})
  # dlclose leaves the code in place: a look-up of a name cannot be interrupted, and its thread may come back after the last object is gone.
  target_link_options(${target} PRIVATE -Wl,--version-script=${script} -Wl,-z,nodelete)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()
