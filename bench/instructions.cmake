# What the checks of instruction counts need, too, without any peer: tests/bench includes this as well.
include_guard(GLOBAL)

add_library(bench_support STATIC ${CMAKE_CURRENT_LIST_DIR}/support/arguments.cpp ${CMAKE_CURRENT_LIST_DIR}/support/measure.cpp
                                 ${CMAKE_CURRENT_LIST_DIR}/support/stanzas.cpp)
target_include_directories(bench_support PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(bench_support PRIVATE qlk_build_options)

# Below the exported functions: a parser without a connection is no part of the library's interface.
add_executable(parse_ours ${CMAKE_CURRENT_LIST_DIR}/parse_ours.cpp)
target_include_directories(parse_ours PRIVATE ${PROJECT_SOURCE_DIR}/warbler/src)
target_link_libraries(parse_ours PRIVATE qlk_build_options bench_support warbler_static PkgConfig::LIBEVENT PkgConfig::EXPAT OpenSSL::SSL)
