# What `cmake --install` lays down: headers, both kinds of both libraries, and how pkg-config and CMake find them. The components are what
# running programs need (runtime), what building them needs (development), and the commands (tools).
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

install(DIRECTORY include/ warbler/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
# The pages, laid to each other as they are here, so that their links lead somewhere.
install(FILES LICENSE README.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN "*.[ch]" PATTERN "*.[ch]pp" PATTERN man EXCLUDE)

# Two sets: who links the shared libraries needs none of the packages that the archives need.
install(TARGETS qlk_shared warbler_shared EXPORT libqlk-shared
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS qlk_static warbler_static EXPORT libqlk-static)
# libqlk finds the libwarbler beside it, wherever the two are laid.
set_target_properties(qlk_shared PROPERTIES INSTALL_RPATH "\$ORIGIN")
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/libqlk)
foreach(set shared static)
  install(EXPORT libqlk-${set} NAMESPACE libqlk:: DESTINATION ${package_dir})
endforeach()
configure_package_config_file(cmake/libqlk-config.cmake.in ${PROJECT_BINARY_DIR}/libqlk-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libqlk-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/libqlk-config.cmake ${PROJECT_BINARY_DIR}/libqlk-config-version.cmake DESTINATION ${package_dir})

# The pkg-config files find the prefix from where they lie, so that an installed tree may be moved.
file(RELATIVE_PATH QLK_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(library libwarbler libqlk)
  configure_file(cmake/${library}.pc.in ${PROJECT_BINARY_DIR}/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
