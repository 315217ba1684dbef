# The Debian packages, made by `cpack` from a finished build:
#   libqlk1      the two shared libraries, for programs that run
#   libqlk-dev   headers, archives, and the files of pkg-config and CMake, for programs that are built
#   qlk-tools    the commands
# A build that was configured with -DCMAKE_INSTALL_PREFIX=/usr puts the libraries where Debian keeps those of its architecture.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqlk)
set(CPACK_PACKAGE_VENDOR libqlk)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_CONTACT "libqlk maintainers <maintainers@libqlk.invalid>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(QLK_BUILD_GRID OR QLK_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packaging_finish.cmake)
set(CPACK_LIBQLK_COPYRIGHT ${PROJECT_SOURCE_DIR}/cmake/packaging_copyright.txt)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where the libraries of the other package are found while this one is made; the dependency on it stands below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/warbler)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Of one version: the archives and headers describe these very libraries, and the commands are tested with them.
set(own_libraries "libqlk1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqlk1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library for message grids over XMPP
An application joins a message grid with it: it proves who it is with a TLS
certificate, subscribes to and publishes notifications, asks queries and
answers them, and downloads large XML documents.
.
This package holds the shared libraries libqlk and libwarbler, the XMPP client
layer under it.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqlk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${own_libraries}, libcurl4-openssl-dev | libcurl-dev, libevent-dev, libexpat1-dev, libssl-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "client library for message grids over XMPP: development files
An application joins a message grid with libqlk.
.
This package holds what programs that use the library are built with: headers,
archives, and the files of pkg-config and CMake.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qlk-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${own_libraries}, openssl, python3 (>= 3.9)")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "prosody, prosody-modules")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "commands for message grids over XMPP
An application joins a message grid with libqlk.
.
This package holds its commands. qlk looks at a grid, asks, answers, publishes
and subscribes, and finds out why a connection fails. quillon-grid runs a
whole grid on one machine, for development and tests: an XMPP server of its
own, the controller and the bulk service. The server is Prosody, which is
recommended and not required.")

include(CPack)
