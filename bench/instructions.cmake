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

# What measures over a connection to the echo server.
add_library(bench_clients STATIC ${CMAKE_CURRENT_LIST_DIR}/support/grid_client.cpp ${CMAKE_CURRENT_LIST_DIR}/support/raw_client.cpp
                                 ${CMAKE_CURRENT_LIST_DIR}/support/warbler_client.cpp)
target_link_libraries(bench_clients PUBLIC bench_support qlk_shared PkgConfig::LIBEVENT OpenSSL::SSL Threads::Threads PRIVATE qlk_build_options)

foreach(program echo_server query_async)
  add_executable(${program} ${CMAKE_CURRENT_LIST_DIR}/${program}.cpp)
  target_link_libraries(${program} PRIVATE qlk_build_options bench_clients)
endforeach()
